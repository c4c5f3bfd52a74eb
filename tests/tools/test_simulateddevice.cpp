// SPDX-License-Identifier: MIT
#include "simulateddevice.h"

#include <gtest/gtest.h>

namespace
{

using devicecodec::Framing;

QByteArray command(int code, int subCode, int low = 0, int high = 0)
{
    QByteArray body = QByteArray::fromHex("5a01");
    for (const int byte : {code, subCode, 0x07, low, high}) {
        body.append(static_cast<char>(byte));
    }
    body.append(static_cast<char>(devicecodec::checksum(body)));
    return "<T" + body.toHex() + ">";
}

SimulatedDevice::Settings settingsFor(Medium medium, const char* fault = nullptr)
{
    SimulatedDevice::Settings settings;
    settings.medium = medium;
    if (fault != nullptr) {
        EXPECT_EQ(settings.faults.parse(QLatin1String(fault)), QString());
    }
    return settings;
}

Exchange exchangeWith(SimulatedDevice& device, const QByteArray& bytes)
{
    std::vector<Exchange> exchanges = device.receive(bytes);
    for (const Exchange& exchange : device.settle()) {
        exchanges.push_back(exchange);
    }
    EXPECT_EQ(exchanges.size(), 1U);
    return exchanges.empty() ? Exchange() : exchanges.front();
}

Exchange answerTo(const QByteArray& bytes, Medium medium, const char* fault = nullptr)
{
    SimulatedDevice device(settingsFor(medium, fault));
    return exchangeWith(device, bytes);
}

// Block size of the answer, -1 for an answer of a reply alone; the reply has been checked.
qsizetype blockSize(const Exchange& exchange, int announced = -1)
{
    if (exchange.answer.empty()) {
        ADD_FAILURE() << "no answer";
        return -2;
    }
    const QByteArray reply = exchange.answer[0].bytes;
    EXPECT_EQ(reply.size(), 19);
    EXPECT_TRUE(reply.startsWith("<F") && reply.endsWith('>'));
    const QByteArray body = QByteArray::fromHex(reply.mid(2, 16));
    EXPECT_EQ(static_cast<quint8>(body.at(7)), devicecodec::checksum(body.left(7)));
    if (announced >= 0) {
        EXPECT_EQ(static_cast<quint8>(body.at(6)) * 256 + static_cast<quint8>(body.at(5)),
                  announced);
    }
    EXPECT_LE(exchange.answer.size(), 2U);
    return exchange.answer.size() < 2 ? -1 : exchange.answer[1].bytes.size();
}

TEST(SimulatedDevice, EchoesACommandInItsReply)
{
    const Exchange exchange = answerTo(command(0x10, 0x02, 0x03, 0x04), Medium::Datagrams);
    ASSERT_EQ(exchange.answer.size(), 1U);
    EXPECT_EQ(exchange.answer[0].bytes, QByteArray("<F5a011002070304").append("7b>"));
    EXPECT_TRUE(exchange.faults.empty());
    EXPECT_EQ(exchange.times, 1);
}

TEST(SimulatedDevice, AddsTheBlocksOfTheReplyKinds)
{
    constexpr int none = -1;
    const struct {
        int code;
        int subCode;
        int low;
        int high;
        int onDatagrams;
        int onStream;
    } kinds[] = {
        {0x8b, 0x05, 0, 0, 145, 145},
        {0x8b, 0x09, 0, 0, 129, 129},
        {0x8b, 0x06, 0, 0, none, none},
        {0x77, 0x23, 0, 0, 129, 129},
        {0x77, 0x24, 0, 0, none, none},
        {0x69, 0x09, 0, 0, 129, 129},
        {0x69, 0x08, 0, 0, none, none},
        {0x79, 0x0c, 0, 1, none, none},
        {0x79, 0x09, 0x10, 0, none, 16},
        {0x79, 0x01, 0, 0, 64, 64},
        {0x79, 0x01, 0x05, 1, 261, 261},
        {0xf1, 0x40, 0, 0, none, none},
        {0xf1, 0x40, 0x01, 0, 1, 1},
        {0xf1, 0x41, 0, 0, 64, 64},
        {0x8e, 0x27, 0x00, 1, 256, 256},
        {0x8e, 0x28, 0, 0, none, none},
        {0x8e, 0x27, 0xff, 0xff, 32767, 65535},
    };
    for (const auto& kind : kinds) {
        const QByteArray bytes = command(kind.code, kind.subCode, kind.low, kind.high);
        const int announced = kind.code == 0x10 ? 0 : -1;
        EXPECT_EQ(blockSize(answerTo(bytes, Medium::Datagrams), announced), kind.onDatagrams)
            << std::hex << kind.code << ' ' << kind.subCode;
        EXPECT_EQ(blockSize(answerTo(bytes, Medium::Stream), announced), kind.onStream)
            << std::hex << kind.code << ' ' << kind.subCode;
    }
    blockSize(answerTo(command(0x8e, 0x27), Medium::Datagrams), 64);
    blockSize(answerTo(command(0x8e, 0x27, 0xff, 0xff), Medium::Datagrams), 32767);
    blockSize(answerTo(command(0x8b, 0x05), Medium::Datagrams), 145);
}

TEST(SimulatedDevice, ShortensTheBlockOfTheKindThatHasAShortOne)
{
    SimulatedDevice::Settings settings;
    settings.medium = Medium::Stream;
    settings.shortBlock = true;
    settings.announcedLength = 5;
    SimulatedDevice device(settings);
    EXPECT_EQ(blockSize(exchangeWith(device, command(0x69, 0x09))), 33);
    EXPECT_EQ(blockSize(exchangeWith(device, command(0x8b, 0x09))), 129);
    EXPECT_EQ(blockSize(exchangeWith(device, command(0x79, 0x01)), 5), 5);
}

TEST(SimulatedDevice, EndsAStreamsBlockWithItsChecksum)
{
    for (const int length : {1, 2, 129}) {
        const QByteArray bytes = command(0x8e, 0x27, length);
        const QByteArray block = answerTo(bytes, Medium::Stream).answer.at(1).bytes;
        EXPECT_EQ(static_cast<quint8>(block.at(length - 1)),
                  devicecodec::checksum(block.left(length - 1)));
        const QByteArray raw = answerTo(bytes, Medium::Datagrams).answer.at(1).bytes;
        for (int i = 1; i < length; ++i) {
            ASSERT_EQ(static_cast<quint8>(raw.at(i)), static_cast<quint8>(raw.at(0) + i));
        }
    }
}

TEST(SimulatedDevice, AnswersBinaryCommandsWithTheBlockTheyAskFor)
{
    SimulatedDevice::Settings settings;
    settings.framing = Framing::Binary;
    settings.medium = Medium::Stream;
    SimulatedDevice device(settings);
    const auto exchangeFor = [&device](const QByteArray& hex) {
        const QByteArray head = QByteArray::fromHex(hex);
        return exchangeWith(device, head + static_cast<char>(devicecodec::checksum(head)));
    };
    const Exchange plain = exchangeFor("f11f02030004000500000607080000");
    ASSERT_EQ(plain.answer.size(), 1U);
    EXPECT_EQ(plain.answer[0].bytes.toHex(), QByteArray("f11f0203000400050000060708000033"));
    const Exchange block = exchangeFor("f11f02030004000500000607080301");
    ASSERT_EQ(block.answer.size(), 2U);
    EXPECT_EQ(block.answer[0].bytes.mid(8, 2).toHex(), QByteArray("0103"));
    EXPECT_EQ(block.answer[1].bytes.size(), 0x0103);
    EXPECT_EQ(static_cast<quint8>(block.answer[1].bytes.back()),
              devicecodec::checksum(block.answer[1].bytes.left(0x0102)));
}

class SimulatedFault : public ::testing::Test
{
protected:
    const QByteArray plainCommand = command(0x10, 0x02);
    const QByteArray blockCommand = command(0x8b, 0x05);
    const QByteArray plainReply = answerTo(plainCommand, Medium::Datagrams).answer[0].bytes;

    // The answer to a command whose answer would otherwise be the same.
    static Exchange struck(const QByteArray& bytes, const char* fault,
                           Medium medium = Medium::Datagrams)
    {
        Exchange exchange = answerTo(bytes, medium, fault);
        EXPECT_EQ(exchange.faults.size(), 1U) << fault;
        return exchange;
    }
};

TEST_F(SimulatedFault, Drop)
{
    EXPECT_TRUE(struck(plainCommand, "drop=1").answer.empty());
}

TEST_F(SimulatedFault, Duplicate)
{
    const auto answer = struck(blockCommand, "duplicate=1").answer;
    ASSERT_EQ(answer.size(), 4U);
    EXPECT_EQ(answer[0].bytes, answer[1].bytes);
    EXPECT_EQ(answer[2].bytes, answer[3].bytes);
    EXPECT_EQ(answer[2].bytes.size(), 145);
}

TEST_F(SimulatedFault, Delay)
{
    const auto answer = struck(blockCommand, "delay=1:77").answer;
    EXPECT_EQ(answer.at(0).after.count(), 77);
    EXPECT_EQ(answer.at(1).after.count(), 0);
}

TEST_F(SimulatedFault, WrongChecksum)
{
    QByteArray expected = plainReply;
    const int sum = expected.mid(16, 2).toInt(nullptr, 16) + 1;
    expected.replace(16, 2, QByteArray::number(sum & 0xff, 16).rightJustified(2, '0'));
    EXPECT_EQ(struck(plainCommand, "wrong-checksum=1").answer.at(0).bytes, expected);
}

TEST_F(SimulatedFault, TruncateAndOversize)
{
    EXPECT_EQ(struck(plainCommand, "truncate=1").answer.at(0).bytes, plainReply.left(18));
    EXPECT_EQ(struck(plainCommand, "truncate=1:18").answer.at(0).bytes, plainReply.left(1));
    EXPECT_EQ(struck(plainCommand, "oversize=1:3").answer.at(0).bytes,
              plainReply + QByteArray(3, '\0'));
}

TEST_F(SimulatedFault, BlockFirst)
{
    const auto answer = struck(blockCommand, "block-first=1").answer;
    ASSERT_EQ(answer.size(), 2U);
    EXPECT_EQ(answer[0].bytes.size(), 145);
    EXPECT_EQ(answer[1].bytes.size(), 19);
}

TEST_F(SimulatedFault, ShortAndLongBlock)
{
    EXPECT_EQ(blockSize(struck(blockCommand, "short-block=1")), 144);
    EXPECT_EQ(blockSize(struck(blockCommand, "short-block=1:45")), 100);
    EXPECT_EQ(blockSize(struck(blockCommand, "short-block=1:145")), -1) << "nothing is left";
    EXPECT_EQ(blockSize(struck(blockCommand, "long-block=1:5")), 150);
}

TEST_F(SimulatedFault, BlockChecksumOnStreamsOnly)
{
    const auto block = struck(blockCommand, "block-checksum=1", Medium::Stream).answer.at(1).bytes;
    EXPECT_EQ(static_cast<quint8>(block.at(144)),
              static_cast<quint8>(devicecodec::checksum(block.left(144)) + 1));
    EXPECT_TRUE(answerTo(blockCommand, Medium::Datagrams, "block-checksum=1").faults.empty());
}

TEST_F(SimulatedFault, GarbageComesFirst)
{
    const auto answer = struck(plainCommand, "garbage=1:40").answer;
    ASSERT_EQ(answer.size(), 2U);
    EXPECT_EQ(answer[0].bytes.size(), 40);
    EXPECT_EQ(answer[1].bytes, plainReply);
}

TEST_F(SimulatedFault, Flood)
{
    EXPECT_EQ(struck(plainCommand, "flood=1:12345").times, 12345);
}

TEST_F(SimulatedFault, WaitsForAnAnswerThatItCanApplyTo)
{
    for (const char* fault : {"block-first=1", "short-block=1", "long-block=1"}) {
        SimulatedDevice device(settingsFor(Medium::Datagrams, fault));
        EXPECT_TRUE(exchangeWith(device, plainCommand).faults.empty()) << fault;
        EXPECT_EQ(exchangeWith(device, blockCommand).faults.size(), 1U) << fault;
        EXPECT_TRUE(exchangeWith(device, blockCommand).faults.empty()) << fault;
    }
}

TEST_F(SimulatedFault, SplitKeepsADelay)
{
    SimulatedDevice::Settings settings = settingsFor(Medium::Stream, "split=1:5");
    ASSERT_EQ(settings.faults.parse(QStringLiteral("delay=1:77")), QString());
    SimulatedDevice device(settings);
    const auto answer = exchangeWith(device, plainCommand).answer;
    ASSERT_EQ(answer.size(), 19U);
    EXPECT_EQ(answer[0].after.count(), 77 + 5);
    EXPECT_EQ(answer[1].after.count(), 5);
}

QByteArray transcript(quint64 seed)
{
    SimulatedDevice::Settings settings;
    settings.seed = seed;
    for (int i = 0; i < faultCount; ++i) {
        settings.faults.parse(Faults::name(static_cast<Fault>(i)) + QStringLiteral("=30%"));
    }
    SimulatedDevice device(settings);
    QByteArray all;
    for (int i = 0; i < 500; ++i) {
        const Exchange exchange = exchangeWith(device, command(i % 2 == 0 ? 0x8b : 0x10, 0x05));
        for (const Emission& emission : exchange.answer) {
            all += emission.bytes + QByteArray::number(static_cast<int>(emission.after.count()));
        }
        all += 'x' + QByteArray::number(exchange.times) + '\n';
    }
    return all;
}

TEST(SimulatedDevice, AnswersAlikeForTheSameSeed)
{
    EXPECT_EQ(transcript(1), transcript(1));
    EXPECT_NE(transcript(1), transcript(2));
    EXPECT_GT(transcript(1).size(), 10000);
}

} // namespace
