// SPDX-License-Identifier: MIT
#include "core_udp.h"
#include "hostqueue.h"
#include "messagecapture.h"
#include "processstate.h"
#include "threadrefusal.h"
#include "udppeer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace
{

model_Protocoldata command()
{
    model_Protocoldata record;
    record.HEAD = 1;
    record.ADDR = 2;
    record.CMD = 3;
    record.DAT1 = 4;
    record.DAT2 = 5;
    record.DAT3 = 6;
    record.DAT4 = 7;
    return record;
}

const QByteArray commandText = "<T010203040506071c>";
const QString sendDataLine = QStringLiteral("\"Send data:<T010203040506071c>\"");
const QString logLine = QStringLiteral("Send successful:<T010203040506071c>");

} // namespace

class CoreUdpSend : public ::testing::Test
{
protected:
    CoreUdpSend()
    {
        transport.setDeviceIP(QStringLiteral("127.0.0.1"));
        transport.setPort(peer.port());
        hostqueue::clear();
    }

    UdpPeer peer;
    core_UDP transport;
    MessageCapture capture;
};

TEST_F(CoreUdpSend, UnicastFrameDebugLinesAndLog)
{
    model_Protocoldata record = command();
    record.CHKSUM = 99;
    transport.sendDatatoDevice(&record);
    EXPECT_EQ(peer.receive().bytes, commandText);
    EXPECT_EQ(capture.lines(), QStringList({QStringLiteral("Send successful"), sendDataLine}));
    EXPECT_EQ(hostqueue::countLog(logLine), 1);
    EXPECT_EQ(record.CHKSUM, 99); // the caller's record stays as it is
}

TEST_F(CoreUdpSend, SendTouchesNeitherFlagNorQueue)
{
    for (const bool flag : {false, true}) {
        hostqueue::setFlag(flag);
        model_Protocoldata record = command();
        transport.sendDatatoDevice(&record);
        peer.receive();
        EXPECT_EQ(hostqueue::flag(), flag);
    }
    EXPECT_EQ(hostqueue::size(), 0U);
}

TEST_F(CoreUdpSend, UsbRecordIsIgnoredSilently)
{
    model_Protocoldata record = command();
    record.featureCode = 0x400000;
    transport.sendDatatoDevice(&record);
    transport.sendDatatoDevice(nullptr);
    transport.sendDatatoDeviceByFeatures(nullptr);
    transport.sendDatatoDeviceForSysPlan(nullptr);
    EXPECT_FALSE(peer.hasDatagram());
    EXPECT_TRUE(capture.lines().isEmpty());
}

TEST_F(CoreUdpSend, UnknownModeIsRefused)
{
    for (const int mode : {2, 3, 255}) {
        model_Protocoldata record = command();
        record.sendMode = static_cast<quint8>(mode);
        transport.sendDatatoDevice(&record);
        EXPECT_FALSE(peer.hasDatagram());
        EXPECT_EQ(capture.lines(), QStringList(QStringLiteral("Send data abnormal")));
        capture.clear();
    }
}

TEST_F(CoreUdpSend, ByFeaturesTakesOnlyItsCode)
{
    model_Protocoldata record = command();
    for (const int code : {0, 0x3201, 0x400000, -1}) {
        record.featureCode = code;
        transport.sendDatatoDeviceByFeatures(&record);
    }
    EXPECT_FALSE(peer.hasDatagram());
    EXPECT_TRUE(capture.lines().isEmpty());
    record.featureCode = 0x3200;
    transport.sendDatatoDeviceByFeatures(&record);
    EXPECT_EQ(peer.receive().bytes, commandText);
}

TEST_F(CoreUdpSend, ByFeaturesGivesTheCallersRecordToTheVirtualOperation)
{
    class Recorder : public core_UDP
    {
    public:
        void sendDatatoDevice(void* parameters) override { given = parameters; }
        void* given = nullptr;
    } recorder;
    model_Protocoldata record = command();
    recorder.sendDatatoDeviceByFeatures(&record);
    EXPECT_EQ(recorder.given, nullptr);
    record.featureCode = 0x3200;
    recorder.sendDatatoDeviceByFeatures(&record);
    EXPECT_EQ(recorder.given, &record);
}

TEST_F(CoreUdpSend, DeviceWithAnIpv6Address)
{
    UdpPeer device(QStringLiteral("::1"));
    transport.setDeviceIP(QStringLiteral("::1"));
    transport.setPort(device.port());
    model_Protocoldata record = command();
    transport.sendDatatoDevice(&record);
    EXPECT_EQ(device.receive().bytes, commandText);
}

TEST_F(CoreUdpSend, SlotsWorkByName)
{
    model_Protocoldata record = command();
    record.strKey = QStringLiteral("127.0.0.1");
    record.featureCode = 0x3200;
    for (const char* slot :
         {"sendDatatoDevice", "sendDatatoDeviceByFeatures", "sendDatatoDeviceForSysPlan"}) {
        ASSERT_TRUE(QMetaObject::invokeMethod(&transport, slot, Q_ARG(void*, &record)));
        EXPECT_EQ(peer.receive().bytes, commandText);
    }
}

TEST_F(CoreUdpSend, LongFrameGoesInPiecesOf540)
{
    for (const int size : {540, 541, 1080, 1081}) {
        model_Protocoldata record = command();
        for (int i = 0; i < size - 19; ++i) {
            record.arryDatablock.append(static_cast<char>(1 + i % 250));
        }
        transport.sendDatatoDevice(&record);
        QByteArray whole;
        while (whole.size() < size) {
            const QByteArray piece = peer.receive().bytes;
            ASSERT_EQ(piece.size(), qMin(540, size - whole.size()));
            whole += piece;
        }
        EXPECT_EQ(whole, commandText + record.arryDatablock);
        EXPECT_FALSE(peer.hasDatagram());
    }
}

TEST_F(CoreUdpSend, EmptyFrameSendsNothingAndSucceeds)
{
    transport.sendUdpData(QByteArray());
    EXPECT_FALSE(peer.hasDatagram());
    EXPECT_EQ(capture.lines(), QStringList(QStringLiteral("Send successful")));
    EXPECT_EQ(hostqueue::countLog(QStringLiteral("Send successful:")), 1);
}

TEST_F(CoreUdpSend, TextsEndAtTheFirstZeroByte)
{
    model_Protocoldata record = command();
    record.arryDatablock = QByteArray("ab\0cd", 5);
    transport.sendDatatoDevice(&record);
    EXPECT_EQ(peer.receive().bytes, commandText + record.arryDatablock);
    EXPECT_EQ(hostqueue::countLog(logLine + QStringLiteral("ab")), 1);
    EXPECT_EQ(capture.lines().last(), QStringLiteral("\"Send data:<T010203040506071c>ab\""));
}

TEST_F(CoreUdpSend, BlockBytesForgeNoLogLine)
{
    model_Protocoldata record = command();
    record.arryDatablock = "\nforged\r\x1b[2J";
    transport.sendDatatoDevice(&record);
    EXPECT_EQ(hostqueue::countLog(QStringLiteral("forged")), 0);
    EXPECT_EQ(hostqueue::countLog(logLine + QStringLiteral("\\nforged\\r\\x1b[2J")), 1);
}

TEST_F(CoreUdpSend, EmptyOrMalformedAddressFailsAndNothingLeaves)
{
    const QStringList log = hostqueue::logLines();
    for (const char* address : {"", "no address", "127.0.0.1 x", "300.1.1.1"}) {
        transport.setDeviceIP(QString::fromLatin1(address));
        model_Protocoldata record = command();
        transport.sendDatatoDevice(&record);
        EXPECT_EQ(capture.lines(),
                  QStringList({QStringLiteral("Send Broadcast failed"), sendDataLine}));
        EXPECT_FALSE(peer.hasDatagram());
        QCoreApplication::processEvents();
        EXPECT_EQ(capture.lines().size(), 2); // no re-initialisation
        capture.clear();
    }
    EXPECT_EQ(hostqueue::logLines(), log);
}

TEST_F(CoreUdpSend, LongFrameToNowhereAsksForReInit)
{
    int asked = 0;
    QObject::connect(&transport, &core_UDP::signalReInitUdp, [&asked] { ++asked; });
    transport.setDeviceIP(QString());
    transport.sendUdpData(QByteArray(541, 'x'));
    EXPECT_EQ(asked, 1);
    EXPECT_EQ(capture.lines(), QStringList(QStringLiteral("Send unknown")));
    EXPECT_FALSE(peer.hasDatagram());
    ASSERT_TRUE(
        eventually([this] { return capture.count(QStringLiteral("\"reInitUdp()\"")) == 1; }));
}

TEST_F(CoreUdpSend, SystemPlanTakesOnlyItsDevice)
{
    transport.setDeviceIP(QStringLiteral("LOCALHOST"));
    model_Protocoldata record = command();
    record.strKey = QStringLiteral("localhost");
    transport.sendDatatoDeviceForSysPlan(&record);
    transport.setDeviceIP(QStringLiteral("127.0.0.1"));
    record.strKey = QStringLiteral("127.0.0.1 ");
    transport.sendDatatoDeviceForSysPlan(&record);
    record.strKey = QStringLiteral("127.0.0.1");
    for (const int mode : {1, 2, 255}) {
        record.sendMode = static_cast<quint8>(mode);
        transport.sendDatatoDeviceForSysPlan(&record);
    }
    EXPECT_TRUE(capture.lines().isEmpty());
    record.sendMode = 0;
    record.featureCode = 0x400000; // the system plan sends these too
    transport.sendDatatoDeviceForSysPlan(&record);
    EXPECT_EQ(peer.receive().bytes, commandText);
    EXPECT_TRUE(eventually([this] { return capture.lines().size() == 2; }));
    EXPECT_EQ(capture.count(sendDataLine), 1);
    EXPECT_FALSE(peer.hasDatagram());
}

TEST_F(CoreUdpSend, SystemPlanFloodNeedsOneThreadAndKeepsItsOrder)
{
    const int before = processstate::threads();
    int most = 0;
    constexpr int frames = 500;
    model_Protocoldata record = command();
    record.strKey = QStringLiteral("127.0.0.1");
    for (int i = 0; i < frames; ++i) {
        record.DAT1 = static_cast<quint8>(i);
        transport.sendDatatoDeviceForSysPlan(&record);
        most = qMax(most, processstate::threads());
    }
    EXPECT_LE(most, before + 4); // one at work, others that have ended and not yet gone
    for (int i = 0; i < frames; ++i) {
        ASSERT_EQ(peer.receive().bytes.mid(8, 2),
                  QByteArray::number(i % 256, 16).rightJustified(2, '0'));
    }
}

TEST_F(CoreUdpSend, SystemPlanWithoutAThreadStillSends)
{
    model_Protocoldata record = command();
    record.strKey = QStringLiteral("127.0.0.1");
    {
        const ThreadRefusal refusal;
        transport.sendDatatoDeviceForSysPlan(&record);
    }
    EXPECT_EQ(peer.receive().bytes, commandText);
}

TEST_F(CoreUdpSend, SystemPlanFailureReInitsInTheOwnersThread)
{
    std::thread::id emittedIn;
    QObject::connect(
        &transport, &core_UDP::signalReInitUdp, &transport,
        [&] { emittedIn = std::this_thread::get_id(); }, Qt::DirectConnection);
    transport.setDeviceIP(QStringLiteral("nowhere"));
    model_Protocoldata record = command();
    record.strKey = QStringLiteral("nowhere");
    record.arryDatablock = QByteArray(1000, 'x');
    transport.sendDatatoDeviceForSysPlan(&record);
    ASSERT_TRUE(
        eventually([this] { return capture.count(QStringLiteral("\"reInitUdp()\"")) == 1; }));
    EXPECT_EQ(emittedIn, std::this_thread::get_id());
}

TEST_F(CoreUdpSend, SettersTakeTheClassWideLockAndSendsDoNot)
{
    std::atomic<int> started{0};
    std::atomic<int> set{0};
    std::thread ip;
    std::thread port;
    {
        const std::lock_guard lock(core_UDP::stdCMDlock);
        ip = std::thread([&] {
            ++started;
            transport.setDeviceIP(QStringLiteral("127.0.0.9"));
            ++set;
        });
        port = std::thread([&] {
            ++started;
            transport.setPort(1);
            ++set;
        });
        EXPECT_TRUE(eventually([&] { return started == 2; }));
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        model_Protocoldata record = command();
        transport.sendDatatoDevice(&record); // would hang
        EXPECT_EQ(peer.receive().bytes, commandText);
        EXPECT_EQ(set, 0);
    }
    ip.join();
    port.join();
    EXPECT_EQ(set, 2);
}

TEST_F(CoreUdpSend, SendsFromSeveralThreadsArriveWhole)
{
    constexpr int threads = 4;
    constexpr int each = 100;
    std::vector<std::thread> senders;
    senders.reserve(threads);
    for (int sender = 0; sender < threads; ++sender) {
        senders.emplace_back([this, sender] {
            model_Protocoldata record = command();
            record.HEAD = static_cast<quint8>(sender);
            record.arryDatablock = QByteArray(100 + sender, static_cast<char>('a' + sender));
            for (int i = 0; i < each; ++i) {
                transport.sendDatatoDevice(&record);
            }
        });
    }
    for (std::thread& sender : senders) {
        sender.join();
    }
    for (int i = 0; i < threads * each; ++i) {
        const QByteArray bytes = peer.receive().bytes;
        const int sender = bytes.mid(2, 2).toInt(nullptr, 16);
        ASSERT_EQ(bytes.mid(19), QByteArray(100 + sender, static_cast<char>('a' + sender)));
    }
}

TEST_F(CoreUdpSend, NothingIsFormattedWhileDebugLinesAreOff)
{
    QLoggingCategory::defaultCategory()->setEnabled(QtDebugMsg, false);
    model_Protocoldata record = command();
    transport.sendDatatoDevice(&record);
    EXPECT_EQ(peer.receive().bytes, commandText);
    EXPECT_TRUE(capture.lines().isEmpty());
    EXPECT_EQ(hostqueue::countLog(logLine), 1);
}

TEST_F(CoreUdpSend, FrameOperations)
{
    EXPECT_EQ(transport.produceCmds(command()), commandText);
    EXPECT_EQ(transport.changeData("\xab"), QByteArray("<Tab>"));
    EXPECT_EQ(transport.combineTwoByte(0x34, 0x12), 0x1234);
    EXPECT_EQ(transport.combineTwoByte(0xff, 0xff), -1);
    EXPECT_EQ(transport.combineTwoByte(0x00, 0x80), -32768);
}
