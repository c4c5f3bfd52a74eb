// SPDX-License-Identifier: MIT
#include "core_osd_tcpsocket.h"
#include "eventually.h"
#include "osdhost.h"
#include "plainosdparser.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <thread>

namespace
{

QByteArray noise(std::mt19937& random, int length)
{
    static const char letters[] = "OOKKx\0\xff";
    QByteArray bytes;
    for (int i = 0; i < length; ++i) {
        bytes.append(letters[random() % 7]);
    }
    return bytes;
}

std::vector<QByteArray> sortedAcknowledgements()
{
    std::vector<QByteArray> all;
    for (const model_OsdParam& record : osdhost::records()) {
        all.push_back(record.arryData);
    }
    std::sort(all.begin(), all.end());
    return all;
}

} // namespace

TEST(OsdFrames, PutsTheBytesInTheirPlaces)
{
    Core_Osd_TcpSocket socket(nullptr);
    model_OsdParam record;
    char* const members[] = {&record.ch2, &record.ch3, &record.ch4, &record.ch5, &record.ch6,
                             &record.ch7, &record.ch8, &record.ch9, &record.ch10};
    for (int i = 0; i < 9; ++i) {
        *members[i] = static_cast<char>(i + 1);
    }
    record.ch0 = 0x70;
    record.ch1 = 0x71;
    record.arryData = QByteArray::fromHex("aabb");
    EXPECT_EQ(socket.produceCmds(record), QByteArray::fromHex("01020403060 7aabb0809"));
    record.arryData.clear();
    EXPECT_EQ(socket.produceCmds(record), QByteArray::fromHex("0102040306070809"));
}

TEST(OsdFrames, CarriesDataOfAnySizeAsItIs)
{
    Core_Osd_TcpSocket socket(nullptr);
    for (const int size : {1, 2, 255, 256, 65535, 65536, 1 << 20}) {
        QByteArray data;
        for (int i = 0; i < size; ++i) {
            data.append(static_cast<char>(i * 7));
        }
        const QByteArray frame = socket.produceCmds(osdhost::command({}, char(0xfe), data));
        EXPECT_EQ(frame, QByteArray::fromHex("fe0305040708") + data + QByteArray::fromHex("090a"));
    }
}

TEST(OsdBuffer, GivesWhatThereIs)
{
    Core_Osd_TcpSocket socket(nullptr);
    EXPECT_EQ(socket.takeBuffData(5), QByteArray());
    socket.appendBuffData("abc");
    socket.appendBuffData("def");
    EXPECT_EQ(socket.getBuffData(4), "abcd");
    EXPECT_EQ(socket.getBuffData(65535), "abcdef");
    EXPECT_EQ(socket.takeBuffData(2), "ab");
    EXPECT_EQ(socket.takeBuffData(0), QByteArray());
    EXPECT_EQ(socket.takeBuffData(1000), "cdef");
    EXPECT_EQ(socket.getBuffData(1), QByteArray());
}

TEST(OsdBuffer, FindsTheMark)
{
    struct Case {
        QByteArray before;
        bool found;
        QByteArray after;
    };
    const Case cases[] = {
        {"xxOKz", true, "OKz"},
        {"OKz", true, "OKz"},
        {"xxOK", false, "OK"},
        {"OK", false, "OK"},
        {"", false, ""},
        {"xyz", false, ""},
        {"xyO", false, ""},
        {"OOK1", true, "OK1"},
        {"KOOKK", true, "OKK"},
        {"oK1OK2", true, "OK2"},
        {"OKOKOK", true, "OKOKOK"},
    };
    for (const Case& c : cases) {
        Core_Osd_TcpSocket socket(nullptr);
        socket.appendBuffData(c.before);
        EXPECT_EQ(socket.isFindStdCmdPreFlag(socket.getBuffData(1024)), c.found)
            << c.before.constData();
        EXPECT_EQ(socket.getBuffData(1024), c.after) << c.before.constData();
    }
}

TEST(OsdBuffer, DropsOnlyWhatWasPeeked)
{
    Core_Osd_TcpSocket socket(nullptr);
    socket.appendBuffData(QByteArray(1024, 'x') + "yy");
    EXPECT_FALSE(socket.isFindStdCmdPreFlag(socket.getBuffData(1024)));
    EXPECT_EQ(socket.getBuffData(1024), "yy");
    // A mark across the end of the peek goes with it.
    socket.takeBuffData(2);
    socket.appendBuffData(QByteArray(1023, 'x') + "OKz");
    EXPECT_FALSE(socket.isFindStdCmdPreFlag(socket.getBuffData(1024)));
    EXPECT_EQ(socket.getBuffData(1024), "Kz");
}

TEST(OsdBuffer, AgreesWithAPlainSecondVersion)
{
    std::mt19937 random(4711);
    Core_Osd_TcpSocket socket(nullptr);
    PlainOsdParser plain;
    for (int step = 0; step < 20000; ++step) {
        const auto length = static_cast<unsigned short>(random() % 40);
        switch (random() % 4) {
        case 0: {
            const QByteArray bytes = noise(random, length * (random() % 50 == 0 ? 50 : 1));
            socket.appendBuffData(bytes);
            plain.buffer.append(bytes);
            break;
        }
        case 1:
            ASSERT_EQ(socket.takeBuffData(length), plain.buffer.left(length));
            plain.buffer = plain.buffer.mid(length);
            break;
        default:
            ASSERT_EQ(socket.isFindStdCmdPreFlag(socket.getBuffData(1024)),
                      plain.find(plain.buffer.left(1024)));
        }
        ASSERT_EQ(socket.getBuffData(65535), plain.buffer);
    }
}

TEST(OsdParser, AgreesWithAPlainSecondVersionOnAnyStream)
{
    for (unsigned seed = 1; seed <= 4; ++seed) {
        std::mt19937 random(seed);
        PlainOsdParser plain;
        plain.buffer = noise(random, 400) + QByteArray(3000, 'n') + noise(random, 200);
        Core_Osd_TcpSocket socket(nullptr);
        socket.appendBuffData(plain.buffer);
        const std::size_t before = osdhost::size();
        std::vector<QByteArray> expected = sortedAcknowledgements();
        plain.passes();
        ASSERT_GT(plain.acknowledgements.size(), 20U);
        expected.insert(expected.end(), plain.acknowledgements.begin(),
                        plain.acknowledgements.end());
        std::sort(expected.begin(), expected.end());
        std::thread parser([&socket] { socket.td_dealDataFunc(); });
        EXPECT_TRUE(
            eventually([&] { return osdhost::size() == before + plain.acknowledgements.size(); }));
        EXPECT_TRUE(eventually([&] { return socket.getBuffData(65535) == plain.buffer; }));
        socket.close();
        parser.join();
        EXPECT_EQ(sortedAcknowledgements(), expected);
        EXPECT_EQ(socket.getBuffData(65535), plain.buffer);
    }
}

TEST(OsdParser, StampsTheAcknowledgement)
{
    Core_Osd_TcpSocket socket(nullptr);
    std::thread parser([&socket] { socket.td_dealDataFunc(); });
    socket.appendBuffData(QByteArray::fromHex("78784f4b7a"));
    EXPECT_TRUE(eventually([] { return osdhost::size() == 1; }));
    socket.appendBuffData("OK");
    socket.appendBuffData("1");
    EXPECT_TRUE(eventually([] { return osdhost::size() == 2; }));
    socket.close();
    parser.join();
    const model_OsdParam record = osdhost::records().front();
    EXPECT_EQ(record.arryData, "OKz");
    EXPECT_EQ(record.strIP, QStringLiteral("127.0.0.1"));
    EXPECT_EQ(record.ch4, static_cast<char>(0xff));
    const model_OsdParam plain;
    for (const auto member :
         {&model_OsdParam::ch0, &model_OsdParam::ch1, &model_OsdParam::ch2, &model_OsdParam::ch3,
          &model_OsdParam::ch5, &model_OsdParam::ch6, &model_OsdParam::ch7, &model_OsdParam::ch8,
          &model_OsdParam::ch9, &model_OsdParam::ch10}) {
        EXPECT_EQ(record.*member, plain.*member);
    }
    EXPECT_EQ(record.nParam1, 0);
    EXPECT_EQ(record.nParam2, 0);
    EXPECT_EQ(record.nParam3, 0);
    EXPECT_TRUE(record.strParam.isEmpty());
}

TEST(OsdParser, TakesAtMostOneAcknowledgementInEachPass)
{
    constexpr int count = 100;
    Core_Osd_TcpSocket socket(nullptr);
    socket.appendBuffData(QByteArray("OK1").repeated(count));
    const auto begin = std::chrono::steady_clock::now();
    std::thread parser([&socket] { socket.td_dealDataFunc(); });
    EXPECT_TRUE(eventually([] { return osdhost::size() == count; }));
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(3 * (count - 1)));
    socket.close();
    parser.join();
}

TEST(OsdParser, EndsAtOnceAfterAStop)
{
    Core_Osd_TcpSocket socket(nullptr);
    socket.appendBuffData("OK1");
    socket.close();
    socket.td_dealDataFunc();
    EXPECT_EQ(socket.getBuffData(3), "OK1");
    EXPECT_EQ(osdhost::size(), 0U);
}

TEST(OsdAcknowledgement, GoesToTheHostOnTheCallersThread)
{
    Core_Osd_TcpSocket socket(nullptr);
    socket.addToReceivedQueue(osdhost::command(QStringLiteral("10.0.0.9"), 7, "data"));
    ASSERT_EQ(osdhost::size(), 1U);
    EXPECT_EQ(osdhost::records().front().strIP, QStringLiteral("10.0.0.9"));
    EXPECT_EQ(osdhost::records().front().arryData, "data");
}
