// SPDX-License-Identifier: MIT
#include "core_usb.h"

#include "biz_cmdswork.h"
#include "blocksintime.h"
#include "conformance.h"
#include "corefactory.h"
#include "emulatedhid.h"
#include "eventlog.h"
#include "messagecapture.h"
#include "metamethods.h"
#include "openhidnodes.h"
#include "processstate.h"
#include "receivebuffer.h"
#include "replybytes.h"
#include "shortest.h"
#include "tests/stream/parserloop.h"
#include "textframes.h"
#include "threadrefusal.h"
#include "utility_manage.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace
{

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr quint16 vendor = 0x04B4;
constexpr quint16 plainProduct = 0x2000;
constexpr quint16 updateProduct = 0x100A;

// The reports that a frame is to be cut into: report number, data, zeros.
std::vector<QByteArray> reports(const std::vector<QByteArray>& data)
{
    std::vector<QByteArray> all;
    all.reserve(data.size());
    for (const QByteArray& bytes : data) {
        all.push_back(QByteArray(1, '\0') + bytes.leftJustified(64, '\0'));
    }
    return all;
}

QByteArray blockOf(int size)
{
    QByteArray bytes;
    for (int i = 0; i < size; ++i) {
        bytes.append(static_cast<char>(1 + i % 255));
    }
    return bytes;
}

model_Protocoldata command(quint8 cmd, quint8 dat1, int blockSize)
{
    model_Protocoldata record;
    record.CMD = cmd;
    record.DAT1 = dat1;
    record.arryDatablock = blockOf(blockSize);
    return record;
}

QString logText(const QByteArray& remaining)
{
    return QStringLiteral("Send successful:") +
           QString::fromLatin1(remaining.constData(), static_cast<int>(qstrlen(remaining)));
}

// A line of the log as writeLog stores the text: what it escapes is not looked at here.
QStringList successLines()
{
    return hostqueue::logLines().filter(QStringLiteral("Send successful:"));
}

class UsbLink : public TextFrames
{
public:
    bool open() { return line.openUSB(vendor, plainProduct); }
    void close() { line.closeUSB(); }
    ICoreBase& transport() { return line; }
    void deliver(const QByteArrayList& parts)
    {
        const QByteArray bytes = parts.join();
        for (int start = 0; start < bytes.size(); start += longestReport) {
            ASSERT_TRUE(device.send(bytes.mid(start, longestReport)));
        }
    }
    QByteArray atDevice()
    {
        QByteArray data;
        for (const QByteArray& report : device.written()) {
            data += report.mid(1);
        }
        return data;
    }
    static constexpr int floodSize = 60;
    static constexpr int longestReport = 1024;

    HidTestbed testbed;
    EmulatedHid device{testbed, vendor, plainProduct};
    Core_USB line;
};

class CoreUsb : public ::testing::Test
{
protected:
    CoreUsb() { hostqueue::clear(); }

    void send(model_Protocoldata record) { line.sendDatatoDevice(&record); }
    bool queued(std::size_t count)
    {
        return eventually([count] { return hostqueue::size() >= count; });
    }

    HidTestbed testbed;
    EmulatedHid plain{testbed, vendor, plainProduct};
    EmulatedHid update{testbed, vendor, updateProduct};
    MessageCapture messages;
    Core_USB line;
};

} // namespace

INSTANTIATE_TYPED_TEST_SUITE_P(Usb, LinkConformance, UsbLink);
INSTANTIATE_TYPED_TEST_SUITE_P(Usb, StreamLinkConformance, UsbLink);

TEST_F(CoreUsb, ComesFromTheFactory)
{
    const std::unique_ptr<ICoreBase> made(CoreFactory::creatCoreObjInstance(ConnUsb));
    EXPECT_NE(dynamic_cast<Core_USB*>(made.get()), nullptr);
    EXPECT_EQ(ownMethods(Core_USB::staticMetaObject),
              (QStringList{QStringLiteral("slot sendDatatoDevice(void*) parameters"),
                           QStringLiteral("slot sendDatatoDeviceByFeatures(void*) parameters"),
                           QStringLiteral("slot sendDatatoDeviceForSysPlan(void*) parameters")}));
}

TEST_F(CoreUsb, RefusesOtherLinks)
{
    EXPECT_FALSE(line.openSerialPort(QStringLiteral("/dev/null"), QSerialPort::Baud9600,
                                     QSerialPort::OneStop, QSerialPort::NoParity,
                                     QSerialPort::NoFlowControl, QSerialPort::Data8));
    ICoreBase& link = line;
    link.closeSerialPort();
    link.setDeviceIP(QStringLiteral("127.0.0.1"));
    link.setPort(1);
    EXPECT_TRUE(messages.lines().isEmpty());
}

TEST_F(CoreUsb, OpenFailsInSilence)
{
    const int threads = processstate::threads();
    EXPECT_FALSE(line.openUSB(vendor, 0x7777));
    EXPECT_FALSE(line.openUSB(vendor, 0)); // stands for no other id
    EXPECT_FALSE(line.openUSB(0, plainProduct));
    EXPECT_TRUE(messages.lines().isEmpty());
    EXPECT_EQ(processstate::threads(), threads);
}

TEST_F(CoreUsb, AFailedOpenLeavesItClosedAndForgetsTheIds)
{
    const int threads = processstate::threads();
    update.unplug();
    ASSERT_TRUE(line.openUSB(vendor, plainProduct));
    EXPECT_FALSE(line.openUSB(vendor, updateProduct));
    EXPECT_TRUE(eventually([&] { return processstate::threads() == threads; }));
    line.sendUSBData("x");
    EXPECT_TRUE(plain.written().empty());
    ASSERT_TRUE(line.openUSB(vendor, plainProduct));
    const auto record = command(0x9A, 0xA0, 64);
    send(record);
    EXPECT_EQ(plain.written(),
              reports({TextFrames::command(record).left(64), TextFrames::command(record).mid(64)}));
}

TEST_F(CoreUsb, TellsItsObserversThatTheDeviceHasGone)
{
    using Kind = EventLog::Kind;
    const auto log = std::make_shared<EventLog>();
    line.addObserver(log);
    ASSERT_TRUE(line.openUSB(vendor, plainProduct));
    plain.unplug();
    ASSERT_TRUE(log->has(1, Kind::Lost));
    std::this_thread::sleep_for(milliseconds(400)); // for a few more reads
    line.sendUSBData("late");
    EXPECT_EQ(log->bytes(Kind::SendFailed), "late");
    EXPECT_EQ(log->all(Kind::Sent).size(), 0U);
    EXPECT_FALSE(line.openUSB(vendor, plainProduct));
    EXPECT_EQ(log->all(Kind::Closed).size(), 1U);
    EXPECT_EQ(log->all(Kind::Opened).size(), 1U);
    EXPECT_EQ(log->all(Kind::Lost).size(), 1U) << "each further read fails, too";
}

TEST_F(CoreUsb, FrameLengthsOnTheWire)
{
    ASSERT_TRUE(line.openUSB(vendor, plainProduct));
    const QByteArray bytes = blockOf(300);
    std::size_t seen = 0;
    for (const int size : {1, 19, 63, 64, 65, 127, 128, 129, 211}) {
        std::vector<QByteArray> expected;
        for (int start = 0; start < size; start += 64) {
            expected.push_back(bytes.mid(start, qMin(64, size - start)));
        }
        line.sendUSBData(bytes.left(size));
        const auto written = plain.written();
        EXPECT_EQ(std::vector<QByteArray>(written.begin() + static_cast<long>(seen), written.end()),
                  reports(expected))
            << size;
        seen = written.size();
    }
    line.sendUSBData(QByteArray());
    EXPECT_EQ(plain.written().size(), seen);
}

TEST_F(CoreUsb, LogsWhatWasLeftBeforeEachReport)
{
    ASSERT_TRUE(line.openUSB(vendor, plainProduct));
    QByteArray letters;
    for (int i = 0; i < 140; ++i) {
        letters.append(static_cast<char>('a' + i % 26));
    }
    letters[130] = '\0';
    line.sendUSBData(letters);
    EXPECT_EQ(successLines(),
              (QStringList{logText(letters), logText(letters.mid(64)), logText(letters.mid(128))}));
    EXPECT_TRUE(messages.lines().isEmpty());
}

TEST_F(CoreUsb, ReadsLogTextAsLatin1)
{
    ASSERT_TRUE(line.openUSB(vendor, plainProduct));
    line.sendUSBData("\xe9\xff");
    EXPECT_EQ(successLines(), QStringList{QStringLiteral("Send successful:\u00e9\u00ff")});
    line.sendUSBData("\1z");
    EXPECT_TRUE(successLines().back().endsWith(QLatin1Char('z')));
    line.sendUSBData(QByteArray(64, 'a') + QByteArray("b\0c", 3)); // up to a zero
    EXPECT_TRUE(successLines().back().endsWith(QLatin1String(":b")));
}

TEST_F(CoreUsb, SendsACommandAndSaysSo)
{
    ASSERT_TRUE(line.openUSB(vendor, plainProduct));
    const auto record = command(0x83, 0xff, 60);
    const QByteArray frame = TextFrames::command(record);
    send(record);
    EXPECT_EQ(plain.written(), reports({frame.left(64), frame.mid(64)}));
    const QString said = QStringLiteral("Send usb data:") + QString::fromLatin1(frame.left(19));
    EXPECT_EQ(messages.count(QStringLiteral("\"%1\"").arg(said)) + messages.count(said), 1);
    EXPECT_EQ(messages.lines().size(), 1);
}

TEST_F(CoreUsb, SaysSoWhileClosedToo)
{
    send(command(0x83, 0xff, 0));
    EXPECT_EQ(messages.lines().filter(QStringLiteral("Send usb data:<T")).size(), 1);
    EXPECT_EQ(messages.lines().size(), 1);
    EXPECT_TRUE(successLines().isEmpty());
}

TEST_F(CoreUsb, AFailureEndsTheFrame)
{
    ASSERT_TRUE(line.openUSB(vendor, plainProduct));
    plain.refuseWritesAfter(1);
    line.sendUSBData(blockOf(200));
    EXPECT_EQ(plain.written().size(), 1U);
    EXPECT_EQ(successLines().size(), 1);
    EXPECT_EQ(messages.lines(), QStringList{QStringLiteral("Send failed")});

    // The frame is shown behind what became of it.
    messages.clear();
    send(command(0x10, 0x20, 0));
    ASSERT_EQ(messages.lines().size(), 2);
    EXPECT_EQ(messages.lines().front(), QStringLiteral("Send failed"));
    EXPECT_TRUE(messages.lines().back().contains(QStringLiteral("Send usb data:<T")));
    messages.clear();

    plain.refuseWrites(false);
    line.sendUSBData(blockOf(200));
    EXPECT_EQ(plain.written().size(), 5U);

    plain.refuseWrites(true);
    line.sendUSBData(blockOf(5));
    EXPECT_EQ(messages.count(QStringLiteral("Send failed")), 1);
}

TEST_F(CoreUsb, AnyCountIsASuccess)
{
    ASSERT_TRUE(line.openUSB(vendor, updateProduct));
    for (const int count : {0, 1, 64}) {
        update.countWritesAs(count);
        line.sendUSBData(blockOf(100));
        line.sendUSBData_Update_Norvix(blockOf(100));
    }
    EXPECT_EQ(update.written().size(), 3U * (2 + 3));
    EXPECT_EQ(successLines().size(), 3 * 2);
    EXPECT_TRUE(messages.lines().isEmpty());
}

TEST_F(CoreUsb, SendsByFeatures)
{
    ASSERT_TRUE(line.openUSB(vendor, plainProduct));
    auto record = command(0x10, 0x20, 0);
    for (const int code : {0, 0x3200, 0x400001, -1}) {
        record.featureCode = code;
        line.sendDatatoDeviceByFeatures(&record);
    }
    line.sendDatatoDeviceForSysPlan(&record);
    line.sendDatatoDevice(nullptr);
    line.sendDatatoDeviceByFeatures(nullptr);
    EXPECT_TRUE(plain.written().empty());
    EXPECT_TRUE(messages.lines().isEmpty());
    record.featureCode = 0x400000;
    line.sendDatatoDeviceByFeatures(&record);
    EXPECT_EQ(plain.written().size(), 1U);
}

TEST_F(CoreUsb, SendingByFeaturesIsSending)
{
    class Watched : public Core_USB
    {
    public:
        void sendDatatoDevice(void* parameters) override { taken = parameters; }
        void* taken = nullptr;
    };
    Watched own;
    auto record = command(0x10, 0x20, 0);
    record.featureCode = 0x400000;
    own.sendDatatoDeviceByFeatures(&record);
    EXPECT_EQ(own.taken, &record);
}

TEST_F(CoreUsb, UpdateCommandsAreAlignedToReports)
{
    ASSERT_TRUE(line.openUSB(vendor, updateProduct));
    std::size_t seen = 0;
    for (const int code : {0xA0, 0xA2, 0xA4, 0xA6, 0xA8, 0xAA, 0xAC}) {
        for (const int blockSize : {0, 44, 45, 64, 65, 192}) {
            const auto record = command(0x9A, static_cast<quint8>(code), blockSize);
            const QByteArray frame = TextFrames::command(record);
            std::vector<QByteArray> expected;
            if (frame.size() < 64) {
                expected.push_back(frame);
            } else {
                expected.push_back(frame.left(19));
                for (int start = 19; start < frame.size(); start += 64) {
                    expected.push_back(frame.mid(start, 64));
                }
            }
            send(record);
            const auto written = update.written();
            EXPECT_EQ(
                std::vector<QByteArray>(written.begin() + static_cast<long>(seen), written.end()),
                reports(expected))
                << code << ' ' << blockSize;
            seen = written.size();
        }
    }
    EXPECT_TRUE(messages.lines().isEmpty());
    EXPECT_TRUE(successLines().isEmpty());
}

TEST_F(CoreUsb, OtherCommandsAreNot)
{
    ASSERT_TRUE(line.openUSB(vendor, updateProduct));
    std::size_t seen = 0;
    for (const int code : {0xA1, 0xA3, 0xAB, 0xAE, 0x9E, 0xA}) {
        const auto record = command(0x9A, static_cast<quint8>(code), 64);
        send(record);
        const auto written = update.written();
        ASSERT_EQ(written.size(), seen + 2) << code;
        EXPECT_EQ(written[seen].mid(1), TextFrames::command(record).left(64)) << code;
        seen = written.size();
    }
    send(command(0x9B, 0xA0, 64));
    EXPECT_EQ(update.written()[seen].mid(1), TextFrames::command(command(0x9B, 0xA0, 64)).left(64));
    EXPECT_EQ(messages.lines().size(), 7);
    EXPECT_EQ(successLines().size(), 14);
}

TEST_F(CoreUsb, AnUpdateThatFailsEnds)
{
    ASSERT_TRUE(line.openUSB(vendor, updateProduct));
    update.refuseWritesAfter(2);
    send(command(0x9A, 0xA0, 300));
    EXPECT_EQ(update.written().size(), 2U);
    EXPECT_EQ(messages.lines(), QStringList{QStringLiteral("Send failed")});
    line.closeUSB();
    messages.clear();
    send(command(0x9A, 0xA0, 300));
    EXPECT_TRUE(messages.lines().isEmpty());
}

TEST_F(CoreUsb, UpdateProductsAreRememberedForEver)
{
    const auto record = command(0x9A, 0xA0, 64);
    ASSERT_TRUE(line.openUSB(vendor, plainProduct));
    send(record);
    EXPECT_EQ(plain.written()[0].mid(1), TextFrames::command(record).left(64));
    ASSERT_TRUE(line.openUSB(vendor, updateProduct));
    line.closeUSB();
    ASSERT_TRUE(line.openUSB(vendor, plainProduct));
    send(record);
    EXPECT_EQ(plain.written()[2].mid(1),
              TextFrames::command(record).left(19).leftJustified(64, '\0'));
}

TEST_F(CoreUsb, OnlyThreeProductsOfOneVendorTakeUpdates)
{
    struct Case {
        quint16 vendorId;
        quint16 productId;
        bool takesUpdates;
    };
    for (const Case& entry :
         {Case{vendor, 0x1008, true}, Case{vendor, 0x100A, true}, Case{vendor, 0x100C, true},
          Case{vendor, 0x1009, false}, Case{0x04B5, 0x1008, false}}) {
        EmulatedHid device(testbed, entry.vendorId, entry.productId);
        Core_USB fresh;
        ASSERT_TRUE(fresh.openUSB(entry.vendorId, entry.productId));
        auto record = command(0x9A, 0xA0, 64);
        fresh.sendDatatoDevice(&record);
        EmulatedHid& opened = entry.productId == updateProduct ? update : device;
        ASSERT_EQ(opened.written().size(), 2U) << entry.productId;
        EXPECT_EQ(opened.written()[0][20] == '\0', entry.takesUpdates) << entry.productId;
    }
}

TEST_F(CoreUsb, StampsStandardReplies)
{
    line.setDeviceType(static_cast<model_GlobalEnum::DeviceType>(0x290200));
    ASSERT_TRUE(line.openUSB(vendor, plainProduct));
    const QByteArray reply = replybytes::text(0x10, 0x20);
    ASSERT_TRUE(plain.sendPadded(reply));
    ASSERT_TRUE(queued(1));
    const auto record = hostqueue::records().front();
    EXPECT_EQ(record.bKeyFlag, 2);
    EXPECT_EQ(record.strKey2, QStringLiteral("USB"));
    EXPECT_EQ(record.featureCode, 0x290200);
    EXPECT_EQ(messages.lines().filter(QStringLiteral("Recv data:<F")).size(), 1);
}

TEST_F(CoreUsb, StampsImmediateReplies)
{
    ASSERT_TRUE(line.openUSB(vendor, plainProduct));
    ASSERT_TRUE(plain.sendPadded(replybytes::text(0x79, 0x0C, 9, 9)));
    ASSERT_TRUE(queued(1));
    EXPECT_EQ(hostqueue::records().front().bKeyFlag, 21);
    EXPECT_EQ(hostqueue::records().front().strKey2, QStringLiteral("USB"));
    EXPECT_TRUE(messages.lines().isEmpty());
}

TEST_F(CoreUsb, BlockRepliesHaveNoOriginName)
{
    Utility_Manage::setDeviceType(static_cast<model_GlobalEnum::DeviceType>(0x290200));
    ASSERT_TRUE(line.openUSB(vendor, plainProduct));
    std::size_t expected = 0;
    const auto deliver = [&](int cmd, int dat1, int length, int low, int high) {
        const QByteArray block = replybytes::block(length);
        ASSERT_TRUE(plain.send(replybytes::text(cmd, dat1, low, high) + block));
        ASSERT_TRUE(queued(++expected)) << cmd;
        const auto record = hostqueue::records().back();
        EXPECT_EQ(record.arryDatablock, block) << cmd;
        EXPECT_EQ(record.bKeyFlag, 2) << cmd;
        EXPECT_EQ(record.strKey2, QString()) << cmd;
    };
    deliver(0x69, 0x09, 129, 0, 0); // 129 whatever the device type
    deliver(0x77, 0x23, 129, 0, 0);
    deliver(0x8B, 0x09, 129, 0, 0);
    deliver(0x8B, 0x05, 145, 0, 0);
    deliver(0xF1, 0x00, 261, 5, 1);
    deliver(0x79, 0x01, 10, 10, 0);
    deliver(0x8E, 0x27, 1, 1, 0);
    EXPECT_TRUE(eventually([&] { // behind the record
        return messages.lines().filter(QStringLiteral("Recv data:<F")).size() == 7;
    }));
    Utility_Manage::setDeviceType({});
}

TEST_F(CoreUsb, PaddingBeforeABlockIsPartOfIt)
{
    ASSERT_TRUE(line.openUSB(vendor, plainProduct));
    const QByteArray block = QByteArray(45, '\0') + replybytes::block(20);
    QByteArray sum = block;
    sum[sum.size() - 1] = replybytes::sumOf(block.left(block.size() - 1));
    const auto lost = [this] {
        return messages.lines().filter(QStringLiteral("1CheckBlock default:")).size();
    };
    ASSERT_TRUE(blockComesInTime(
        [&] {
            messages.clear();
            EXPECT_TRUE(plain.sendPadded(replybytes::text(0xF1, 0x00, 65, 0)));
            EXPECT_TRUE(plain.sendPadded(sum.mid(45)));
        },
        [] { return hostqueue::size() == 1; }, [&] { return lost() > 0; }));
    EXPECT_EQ(hostqueue::records().front().arryDatablock, sum);
}

TEST_F(CoreUsb, BlocksOfSixReportsAreJoinedAndLongerOnesLost)
{
    ASSERT_TRUE(line.openUSB(vendor, plainProduct));
    const auto isJoined = [this](int size) {
        const QByteArray block = replybytes::block(size);
        hostqueue::clear();
        messages.clear();
        EXPECT_TRUE(plain.sendPadded(replybytes::text(0xF1, 0x00, size & 0xff, size >> 8) + block));
        EXPECT_TRUE(eventually([this] {
            return hostqueue::size() == 1 ||
                   !messages.lines().filter(QStringLiteral("1CheckBlock default:")).isEmpty();
        }));
        EXPECT_TRUE(eventually([this] { return plain.unread() == 0; }));
        return hostqueue::size() == 1 && hostqueue::records().front().arryDatablock == block;
    };
    // The five reports behind the first take 500 ms of the 600, if nothing else takes its time. On
    // a busy machine the wait takes longer too, but hardly ever the 4 s that the long block needs.
    bool isLongestJoined = false;
    for (int attempt = 0; attempt < 30 && !isLongestJoined; ++attempt) {
        isLongestJoined = isJoined(45 + 5 * 64);
    }
    EXPECT_TRUE(isLongestJoined);
    bool isLongerJoined = true;
    for (int attempt = 0; attempt < 5 && isLongerJoined; ++attempt) {
        const auto start = Clock::now();
        isLongerJoined = isJoined(45 + 40 * 64);
        ASSERT_GE(Clock::now() - start, milliseconds(3900)); // one report is read per turn
    }
    EXPECT_FALSE(isLongerJoined);
}

TEST_F(CoreUsb, LostBlocksAreTold)
{
    ASSERT_TRUE(line.openUSB(vendor, plainProduct));
    struct Case {
        int cmd;
        int dat1;
        int length;
        const char* text;
    };
    for (const Case& lost : {Case{0xF1, 0x01, 10, "1CheckBlock default:"},
                             Case{0x77, 0x23, 129, "2CheckBlock default:"},
                             Case{0x8B, 0x05, 145, "3CheckBlock default:"}}) {
        QByteArray block = replybytes::block(lost.length);
        block[0] = static_cast<char>(block[0] ^ 1);
        ASSERT_TRUE(plain.sendPadded(replybytes::text(lost.cmd, lost.dat1, lost.length) + block));
        EXPECT_TRUE(eventually([&] {
            return messages.lines().filter(QString::fromLatin1(lost.text)).size() == 1;
        })) << lost.text;
    }
    EXPECT_EQ(hostqueue::size(), 0U);
}

TEST_F(CoreUsb, WrongFramesAreTold)
{
    ASSERT_TRUE(line.openUSB(vendor, plainProduct));
    ASSERT_TRUE(plain.sendPadded("<F0102030405060700>"));
    EXPECT_TRUE(eventually([&] {
        return messages.lines()
                   .filter(QStringLiteral("Core_USB::getArrayData   dataStr==0102030405060700"))
                   .size() == 1;
    }));
}

TEST_F(CoreUsb, AFrameWithoutItsEndMarkLosesOneByte)
{
    ASSERT_TRUE(line.openUSB(vendor, plainProduct));
    ASSERT_TRUE(plain.send("<F" + QByteArray(16, 'x')));
    ASSERT_TRUE(plain.send("y"));
    const QByteArray rest = 'F' + QByteArray(16, 'x') + 'y';
    EXPECT_TRUE(eventually([&] { return line.getBuffData(50) == rest; }));
    ASSERT_TRUE(plain.send(replybytes::text(0x10, 0x20))); // more passes over what is left
    EXPECT_TRUE(queued(1));
}

TEST_F(CoreUsb, ReportsAreAppendedWhole)
{
    const auto log = std::make_shared<EventLog>();
    line.addObserver(log);
    ASSERT_TRUE(line.openUSB(vendor, plainProduct));
    ASSERT_TRUE(plain.send(QByteArray("\0\x01\0", 3)));
    const QByteArray bytes("\0\x01\0", 3);
    EXPECT_TRUE(eventually([&] { return line.getBuffData(10) == bytes; }));
    ASSERT_TRUE(plain.send("x"));
    EXPECT_TRUE(log->hasBytes(bytes + "x", LinkEvent::Kind::Received));
    EXPECT_EQ(log->all(LinkEvent::Kind::Received).at(0).event.port, 0);
    line.closeUSB();
    EXPECT_TRUE(line.getBuffData(10).isEmpty());
}

TEST_F(CoreUsb, OneReportIsReadPerTurn)
{
    ASSERT_TRUE(line.openUSB(vendor, plainProduct));
    const auto start = Clock::now(); // before the first can be read
    for (int i = 0; i < 6; ++i) {
        ASSERT_TRUE(plain.send("x"));
    }
    ASSERT_TRUE(eventually([&] { return plain.unread() == 0; }));
    EXPECT_GE(Clock::now() - start, milliseconds(500));
}

TEST_F(CoreUsb, AFullBufferLeavesReportsToTheKernel)
{
    constexpr int count = 20;
    ASSERT_TRUE(line.openUSB(vendor, plainProduct));
    {
        const std::lock_guard host(biz_CMDSWork::receiveHexCmdlock);
        line.appendBuffData(replybytes::text(0x79, 0x0C)); // the parser waits for the host with it
        ASSERT_TRUE(eventually([this] { return line.getBuffData(1).isEmpty(); }));
        line.appendBuffData(QByteArray(ReceiveBuffer::limit, 'x'));
        for (int i = 1; i <= count; ++i) {
            ASSERT_TRUE(plain.sendPadded(replybytes::text(0x10, 0x20, 0, 0, i)));
        }
        // A read that was under way takes one.
        EXPECT_FALSE(eventually([this] { return plain.unread() < count - 1; }, milliseconds(1500)));
        while (line.getBuffData(1) == "x") {
            line.takeBuffData(1024);
        }
    }
    ASSERT_TRUE(queued(1 + count));
    for (std::size_t i = 1; i <= count; ++i) {
        EXPECT_EQ(hostqueue::records()[i].ADDR, i);
    }
}

TEST_F(CoreUsb, AClosedLinkIsNotHeldBack)
{
    const int threads = processstate::threads();
    ASSERT_TRUE(line.openUSB(vendor, plainProduct));
    {
        const std::lock_guard host(biz_CMDSWork::receiveHexCmdlock);
        line.appendBuffData(replybytes::text(0x79, 0x0C));
        ASSERT_TRUE(eventually([this] { return line.getBuffData(1).isEmpty(); }));
        line.appendBuffData(QByteArray(ReceiveBuffer::limit, 'x'));
        line.closeUSB();
    }
    EXPECT_TRUE(eventually([&] { return processstate::threads() == threads; }));
}

TEST_F(CoreUsb, ClosePausesAlways)
{
    const auto start = Clock::now();
    line.closeUSB();
    EXPECT_GE(Clock::now() - start, milliseconds(100));
    EXPECT_LT(shortest(500, [this] { return elapsed([this] { line.closeUSB(); }); }), 500);
    ASSERT_TRUE(line.openUSB(vendor, plainProduct));
    const auto closing = Clock::now();
    line.closeUSB();
    EXPECT_GE(Clock::now() - closing, milliseconds(100));
    EXPECT_TRUE(messages.lines().isEmpty());
}

// The reader pauses for 100 ms and then waits as long for a report.
TEST_F(CoreUsb, CloseWaitsForOneShortRead)
{
    const auto close = [this] {
        EXPECT_TRUE(line.openUSB(vendor, plainProduct));
        std::this_thread::sleep_for(milliseconds(250));
        return elapsed([this] { line.closeUSB(); });
    };
    EXPECT_LT(shortest(700, close), 700);
}

TEST_F(CoreUsb, OpensAndClosesOfSeveralThreadsTakeTurns)
{
    const auto open = [this] {
        for (int i = 0; i < 3; ++i) {
            EXPECT_TRUE(line.openUSB(vendor, plainProduct));
        }
    };
    std::thread one(open);
    std::thread other(open);
    for (int i = 0; i < 3; ++i) {
        line.closeUSB();
    }
    one.join();
    other.join();
    line.closeUSB();
    EXPECT_EQ(openHidNodes(), 0);
}

TEST_F(CoreUsb, AnOpenWaitsForTheCloseBeforeIt)
{
    const int threads = processstate::threads();
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(line.openUSB(vendor, plainProduct));
        std::this_thread::sleep_for(milliseconds(120)); // the reader pauses for 100, then reads
        const std::lock_guard host(biz_CMDSWork::receiveHexCmdlock);
        line.appendBuffData(replybytes::text(0x79, 0x0C)); // the parser waits for the host with it
        ASSERT_TRUE(eventually([this] { return line.getBuffData(1).isEmpty(); }));
        std::thread closing([this] { line.closeUSB(); });
        std::this_thread::sleep_for(milliseconds(1));
        EXPECT_TRUE(line.openUSB(vendor, plainProduct));
        closing.join();
    }
    line.closeUSB();
    EXPECT_TRUE(eventually([&] { return processstate::threads() == threads; }));
}

TEST_F(CoreUsb, OpeningPausesAlways)
{
    const auto start = Clock::now();
    ASSERT_TRUE(line.openUSB(vendor, plainProduct)); // nothing was open
    EXPECT_GE(Clock::now() - start, milliseconds(100));
}

TEST_F(CoreUsb, ClosingWhatIsClosedChangesNothing)
{
    line.appendBuffData("abc");
    line.closeUSB();
    EXPECT_EQ(line.getBuffData(10), "abc");
    EXPECT_FALSE(line.openUSB(vendor, 0x7777));
    EXPECT_EQ(line.takeBuffData(10), "abc");
    const ParserLoop hosts(line); // a parser of the host's own
    line.closeUSB();
    line.appendBuffData(replybytes::text(0x10, 0x20));
    EXPECT_TRUE(queued(1));
}

TEST_F(CoreUsb, ClosingADeviceEmptiesTheBuffer)
{
    ASSERT_TRUE(line.openUSB(vendor, plainProduct));
    line.appendBuffData("<F");
    line.closeUSB();
    EXPECT_EQ(line.getBuffData(10), "");
}

TEST_F(CoreUsb, ClearQueueEmptiesTheHostsQueue)
{
    line.addToReceivedQueue(model_Protocoldata());
    {
        const std::lock_guard hostIsBusy(biz_CMDSWork::receiveHexCmdlock);
        line.clearQueue(); // does not wait
    }
    EXPECT_TRUE(eventually([] { return hostqueue::size() == 0; }));
}

TEST_F(CoreUsb, TextsAreMadeOfBytes)
{
    EXPECT_EQ(line.changeData(QByteArray("\xab\x00\x09", 3)), QByteArray("<Tab0009>"));
}

TEST_F(CoreUsb, CheckBlockKeepsTheNameOfTheOrigin)
{
    model_Protocoldata record;
    record.strKey2 = QStringLiteral("as decoded");
    line.appendBuffData(replybytes::block(5));
    EXPECT_TRUE(line.checkBlock(record, 5));
    EXPECT_EQ(hostqueue::records().front().strKey2, QStringLiteral("as decoded"));
}

TEST_F(CoreUsb, WorkersEndWithTheDevice)
{
    const int threads = processstate::threads();
    const int descriptors = processstate::descriptors();
    for (int round = 0; round < 5; ++round) {
        ASSERT_TRUE(line.openUSB(vendor, plainProduct));
        EXPECT_TRUE(eventually([&] { return processstate::threads() == threads + 2; }));
    }
    line.closeUSB();
    EXPECT_TRUE(eventually([&] { return processstate::threads() == threads; }));
    EXPECT_TRUE(eventually(
        [&] { return plain.openFiles() == 0 && processstate::descriptors() <= descriptors; }));
}

TEST_F(CoreUsb, TheDeviceIsClosedWhenCloseReturns)
{
    for (int round = 0; round < 8; ++round) {
        ASSERT_TRUE(line.openUSB(vendor, plainProduct));
        EXPECT_EQ(openHidNodes(), 2);
        line.closeUSB();
        EXPECT_EQ(openHidNodes(), 0);
    }
}

TEST_F(CoreUsb, AStuckReportHoldsTheCloseForASecond)
{
    ASSERT_TRUE(line.openUSB(vendor, plainProduct));
    plain.holdWrites(true);
    std::thread sender([this] { line.sendUSBData(blockOf(100)); });
    ASSERT_TRUE(eventually([this] { return plain.held() == 1; }));
    const auto start = Clock::now();
    line.closeUSB(); // returns while the report is held
    EXPECT_GE(Clock::now() - start, milliseconds(1100));
    EXPECT_TRUE(messages.lines().isEmpty());
    plain.holdWrites(false);
    sender.join();
    EXPECT_EQ(plain.written().size(), 1U);
    EXPECT_EQ(messages.lines(), QStringList{QStringLiteral("Send failed")});
    EXPECT_TRUE(eventually([this] { return plain.openFiles() == 0; }));
    EXPECT_EQ(openHidNodes(), 0);
    EXPECT_TRUE(line.openUSB(vendor, plainProduct));
}

TEST_F(CoreUsb, ASecondOpenThatFailsLeavesItClosed)
{
    const int threads = processstate::threads();
    plain.allowOpens(1);
    EXPECT_FALSE(line.openUSB(vendor, plainProduct));
    EXPECT_EQ(openHidNodes(), 0);
    EXPECT_EQ(processstate::threads(), threads);
    line.sendUSBData("x");
    EXPECT_TRUE(plain.written().empty());
    EXPECT_TRUE(messages.lines().isEmpty());
}

TEST_F(CoreUsb, WhicheverThreadIsRefusedNothingIsLeft)
{
    ASSERT_TRUE(line.openUSB(vendor, plainProduct)); // what stays for the process is there now
    line.closeUSB();
    const int threads = processstate::threads(); // or more: one may still be ending
    int started = 0;
    for (bool isOpen = false; !isOpen; ++started) {
        const ThreadRefusal refusal(started);
        isOpen = line.openUSB(vendor, plainProduct);
        if (!isOpen) {
            EXPECT_TRUE(eventually([&] { return processstate::threads() <= threads; })) << started;
            line.sendUSBData("x");
            EXPECT_TRUE(plain.written().empty()) << started;
        }
    }
    EXPECT_EQ(started, 3) << "none, the parser, the reader as well";
    line.closeUSB();
    const ThreadRefusal ofTheParser(0, 1);
    EXPECT_FALSE(line.openUSB(vendor, plainProduct));
}

TEST_F(CoreUsb, RefusedThreadsLeaveItClosed)
{
    const int threads = processstate::threads();
    {
        const ThreadRefusal refusal;
        EXPECT_FALSE(line.openUSB(vendor, plainProduct));
    }
    EXPECT_EQ(processstate::threads(), threads);
    line.sendUSBData("x");
    EXPECT_TRUE(plain.written().empty());
    ASSERT_TRUE(line.openUSB(vendor, plainProduct));
    line.sendUSBData("x");
    EXPECT_EQ(plain.written().size(), 1U);
}

TEST_F(CoreUsb, AnotherDeviceStartsAfresh)
{
    ASSERT_TRUE(line.openUSB(vendor, plainProduct));
    ASSERT_TRUE(plain.sendPadded(replybytes::text(0xF1, 0x01, 200, 0)));
    ASSERT_TRUE(eventually([&] { return plain.unread() == 0; }));
    ASSERT_TRUE(line.openUSB(vendor, updateProduct)); // the old parser waits for the block
    ASSERT_TRUE(update.send(replybytes::text(0x10, 0x20) + replybytes::block(300)));
    ASSERT_TRUE(queued(1));
    EXPECT_EQ(hostqueue::records().front().CMD, 0x10);
    EXPECT_TRUE(hostqueue::records().front().arryDatablock.isEmpty());
}

TEST_F(CoreUsb, AThreadOfTheHostMayReadToo)
{
    line.td_readPendingDatagrams(); // nothing is open
    ASSERT_TRUE(line.openUSB(vendor, plainProduct));
    std::atomic<bool> isReading{true};
    std::thread reader([&] {
        line.td_readPendingDatagrams();
        isReading = false;
    });
    EXPECT_TRUE(plain.sendPadded(replybytes::text(0x10, 0x20)));
    EXPECT_TRUE(queued(1));
    EXPECT_TRUE(isReading);
    line.closeUSB();
    reader.join();
}

TEST_F(CoreUsb, CloseDoesNotWaitForTheHost)
{
    std::size_t received = 0;
    const auto took = shortest(800, [&] {
        ++received;
        EXPECT_TRUE(line.openUSB(vendor, plainProduct));
        const std::lock_guard host(biz_CMDSWork::receiveHexCmdlock);
        EXPECT_TRUE(plain.sendPadded(replybytes::text(0x79, 0x0C)));
        EXPECT_TRUE(eventually(
            [&] { return plain.unread() == 0 && !line.getBuffData(50).startsWith('<'); }));
        return elapsed([&] { line.closeUSB(); });
    });
    EXPECT_LT(took, 800); // 200 ms
    EXPECT_TRUE(queued(received));
}

TEST_F(CoreUsb, MayBeDestroyedInAnyState)
{
    const int threads = processstate::threads();
    {
        Core_USB doomed;
        ASSERT_TRUE(doomed.openUSB(vendor, plainProduct));
        ASSERT_TRUE(plain.sendPadded(replybytes::text(0xF1, 0x01, 200, 0)));
        ASSERT_TRUE(eventually([&] { return plain.unread() == 0; }));
        doomed.clearQueue();
    }
    EXPECT_TRUE(eventually([&] { return processstate::threads() == threads; }));
}

TEST_F(CoreUsb, AnUnplugUnderLoadIsSilence)
{
    for (int round = 0; round < 10; ++round) {
        EmulatedHid device(testbed, vendor, 0x3000);
        ASSERT_TRUE(line.openUSB(vendor, 0x3000));
        std::atomic<bool> isLoaded{true};
        const auto load = [&] {
            auto record = command(0x10, 0x20, 100);
            while (isLoaded) {
                line.sendDatatoDevice(&record);
            }
        };
        std::thread first(load);
        std::thread second(load);
        EXPECT_TRUE(eventually([&] { return device.written().size() > 10; }));
        device.unplug();
        messages.clear();
        EXPECT_TRUE(eventually([&] { return messages.count(QStringLiteral("Send failed")) > 10; }));
        line.closeUSB(); // while they send
        isLoaded = false;
        first.join();
        second.join();
        for (const QString& text : messages.lines()) {
            EXPECT_TRUE(text == QStringLiteral("Send failed") ||
                        text.contains(QStringLiteral("Send usb data:")))
                << qPrintable(text);
        }
    }
    EXPECT_FALSE(line.openUSB(vendor, 0x3000));
    EXPECT_TRUE(line.openUSB(vendor, plainProduct));
}

TEST_F(CoreUsb, ASilentDeviceCostsNothing)
{
    const auto log = std::make_shared<EventLog>();
    line.addObserver(log);
    ASSERT_TRUE(line.openUSB(vendor, plainProduct));
    const auto start = Clock::now();
    const double before = processstate::cpuSeconds();
    std::this_thread::sleep_for(std::chrono::seconds(4));
    EXPECT_EQ(log->size(), 1U); // it has been opened
    const double used = processstate::cpuSeconds() - before;
    const double load = used / std::chrono::duration<double>(Clock::now() - start).count();
    RecordProperty("load", std::to_string(load));
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    EXPECT_LT(load, 0.005);
#endif
}
