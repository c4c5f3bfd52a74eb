// SPDX-License-Identifier: MIT
#include "core_udp.h"
#include "hostqueue.h"
#include "messagecapture.h"
#include "processstate.h"
#include "threadrefusal.h"
#include "udppeer.h"
#include "utility_manage.h"

#include <gtest/gtest.h>

#include <QEventLoop>
#include <QSocketNotifier>
#include <QThread>
#include <QTimer>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <memory>
#include <optional>
#include <thread>
#include <utility>

#include <dlfcn.h>
#include <fcntl.h>
#include <unistd.h>

namespace
{

const QString reInitLine = QStringLiteral("\"reInitUdp()\"");

model_Protocoldata command(int number = 0)
{
    model_Protocoldata record;
    record.CMD = static_cast<quint8>(number);
    return record;
}

quint16 localPortSeenBy(UdpPeer& peer, core_UDP& transport)
{
    transport.setDeviceIP(QStringLiteral("127.0.0.1"));
    transport.setPort(peer.port());
    model_Protocoldata record = command();
    transport.sendDatatoDevice(&record);
    return peer.receive().port;
}

std::function<void()> whenAskedForTheDeviceType; // once

} // namespace

// Takes the place of the reference host's, which still answers.
model_GlobalEnum::DeviceType Utility_Manage::getDeviceType()
{
    if (whenAskedForTheDeviceType) {
        std::exchange(whenAskedForTheDeviceType, nullptr)();
    }
    using Ask = model_GlobalEnum::DeviceType (*)();
    return reinterpret_cast<Ask>(dlsym(RTLD_NEXT, "_ZN14Utility_Manage13getDeviceTypeEv"))();
}

class CoreUdpLifecycle : public ::testing::Test
{
protected:
    void SetUp() override { hostqueue::clear(); }
    void TearDown() override { Utility_Manage::setDeviceType(model_GlobalEnum::DeviceUnknown); }
};

TEST_F(CoreUdpLifecycle, LocalPortIsTheSameOnEveryRun)
{
    UdpPeer peer;
    for (int run = 0; run < 2; ++run) {
        core_UDP transport;
        EXPECT_EQ(localPortSeenBy(peer, transport), 5104);
    }
}

TEST_F(CoreUdpLifecycle, TwoDeviceTypesUsePort3005)
{
    for (const auto type : {model_GlobalEnum::Device353100, model_GlobalEnum::Device353101}) {
        Utility_Manage::setDeviceType(type);
        UdpPeer peer;
        core_UDP transport;
        EXPECT_EQ(localPortSeenBy(peer, transport), 3005);
        transport.reInitUdp();
        EXPECT_EQ(localPortSeenBy(peer, transport), 3005);
    }
}

TEST_F(CoreUdpLifecycle, TheirDevicePortIs3005AfterEveryReInitToo)
{
    for (const auto type : {model_GlobalEnum::Device353100, model_GlobalEnum::Device353101}) {
        Utility_Manage::setDeviceType(type);
        core_UDP transport;
        MessageCapture capture;
        for (const char* slot : {"readPendingDatagrams", "reInitUdp", "reInitUdpZarn"}) {
            transport.setDeviceIP(QStringLiteral("127.0.0.1")); // with that port: itself
            ASSERT_TRUE(QMetaObject::invokeMethod(&transport, slot));
            transport.setDeviceIP(QStringLiteral("127.0.0.1"));
            model_Protocoldata record = command(0x10);
            transport.sendDatatoDevice(&record);
            const QString line = QStringLiteral("\"Recv data:<T0000100000000010>\"");
            EXPECT_TRUE(eventually([&] { return capture.count(line) == 1; })) << slot;
            capture.clear();
            transport.setPort(9);
        }
    }
}

TEST_F(CoreUdpLifecycle, OwnDeviceTypeChoosesNoPort)
{
    UdpPeer peer;
    core_UDP transport;
    transport.setDeviceType(model_GlobalEnum::Device353101);
    transport.reInitUdpZarn();
    EXPECT_EQ(localPortSeenBy(peer, transport), UdpPeer::linkPort);
}

TEST_F(CoreUdpLifecycle, PortIsNotShared)
{
    core_UDP transport;
    QUdpSocket second;
    EXPECT_FALSE(second.bind(UdpPeer::linkPort,
                             QAbstractSocket::ShareAddress | QAbstractSocket::ReuseAddressHint));
}

#if QT_VERSION_MAJOR < 6
QT_WARNING_PUSH
QT_WARNING_DISABLE_DEPRECATED
TEST_F(CoreUdpLifecycle, OnlyTheOrdinaryPortUsesTheRandomGenerator)
{
    qsrand(888);
    qrand();
    const int second = qrand();
    qsrand(1);
    {
        const core_UDP transport;
        EXPECT_EQ(qrand(), second);
    }
    qsrand(1);
    const int first = qrand();
    for (const auto type : {model_GlobalEnum::Device353100, model_GlobalEnum::Device353101}) {
        Utility_Manage::setDeviceType(type);
        qsrand(1);
        const core_UDP transport;
        EXPECT_EQ(qrand(), first);
    }
}
QT_WARNING_POP
#else // there is no such generator, and none is used in its place
TEST_F(CoreUdpLifecycle, NoRandomGeneratorIsUsed)
{
    std::srand(1);
    const int first = std::rand();
    std::srand(1);
    const core_UDP transport;
    EXPECT_EQ(std::rand(), first);
}
#endif

TEST_F(CoreUdpLifecycle, DefaultDevicePortIs1000)
{
    UdpPeer peer(QStringLiteral("127.0.0.1"), 1000);
    ASSERT_TRUE(peer.bound());
    core_UDP transport;
    transport.setDeviceIP(QStringLiteral("127.0.0.1"));
    model_Protocoldata record = command(1);
    transport.sendDatatoDevice(&record);
    EXPECT_EQ(peer.receive().bytes.size(), 19);
    transport.setPort(9);
    transport.reInitUdpZarn();
    transport.sendDatatoDevice(&record);
    EXPECT_EQ(peer.receive().bytes.size(), 19);
}

TEST_F(CoreUdpLifecycle, PortAbove65535IsUsedModulo65536)
{
    UdpPeer peer;
    core_UDP transport;
    transport.setDeviceIP(QStringLiteral("127.0.0.1"));
    transport.setPort(65536 + peer.port());
    model_Protocoldata record = command(1);
    transport.sendDatatoDevice(&record);
    EXPECT_EQ(peer.receive().bytes.size(), 19);
}

TEST_F(CoreUdpLifecycle, ReInitForgetsTheDevice)
{
    UdpPeer peer(QStringLiteral("127.0.0.1"), 1000);
    core_UDP transport;
    transport.setDeviceIP(QStringLiteral("127.0.0.1"));
    const MessageCapture capture;
    transport.reInitUdp();
    EXPECT_EQ(capture.lines(), QStringList(reInitLine));
    model_Protocoldata record = command(1);
    transport.sendDatatoDevice(&record);
    EXPECT_EQ(capture.count(QStringLiteral("Send Broadcast failed")), 1);
    EXPECT_FALSE(peer.hasDatagram());
    transport.setDeviceIP(QStringLiteral("127.0.0.1"));
    transport.sendDatatoDevice(&record);
    const auto datagram = peer.receive();
    EXPECT_EQ(datagram.bytes.size(), 19);
    EXPECT_EQ(datagram.port, UdpPeer::linkPort);
}

TEST_F(CoreUdpLifecycle, ReInitListensToTheNewSocket)
{
    UdpPeer peer;
    const int lower = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    core_UDP transport;
    ::close(lower); // the new socket gets its number
    transport.reInitUdp();
    peer.send(replyText(0x79, 0x0c));
    EXPECT_TRUE(eventually([] { return hostqueue::size() == 1; }));
}

TEST_F(CoreUdpLifecycle, ForgottenDeviceIsTheOneWithoutAKey)
{
    core_UDP transport;
    transport.reInitUdp();
    const MessageCapture capture;
    model_Protocoldata record = command(0x10);
    record.strKey = QStringLiteral("100.100.100.100");
    transport.sendDatatoDeviceForSysPlan(&record);
    EXPECT_TRUE(capture.lines().isEmpty());
    record.strKey.clear();
    transport.sendDatatoDeviceForSysPlan(&record);
    EXPECT_EQ(capture.count(QStringLiteral("\"Send data:<T0000100000000010>\"")), 1);
    EXPECT_TRUE(
        eventually([&] { return capture.count(QStringLiteral("Send Broadcast failed")) == 1; }));
}

TEST_F(CoreUdpLifecycle, WhatIsPendingIsDiscarded)
{
    UdpPeer peer;
    auto transport = std::make_unique<core_UDP>();
    const MessageCapture capture;
    const std::function<void()> ends[] = {[&] { transport->reInitUdp(); },
                                          [&] { transport->reInitUdpZarn(); },
                                          [&] { transport.reset(); }};
    for (const auto& end : ends) {
        peer.send(replyText(0x79, 0x0c));
        end();
        QCoreApplication::processEvents();
        EXPECT_EQ(hostqueue::size(), 0U);
        EXPECT_TRUE(capture.lines().filter(QStringLiteral("Recv data:")).isEmpty());
    }
}

TEST_F(CoreUdpLifecycle, NoneOfItTakesTheClassWideLock)
{
    const std::unique_ptr<QThread> owner(QThread::create([] {
        core_UDP transport;
        transport.reInitUdp();
        transport.reInitUdpZarn();
    }));
    {
        const std::lock_guard lock(core_UDP::stdCMDlock);
        owner->start();
        EXPECT_TRUE(eventually([&owner] { return owner->isFinished(); }));
    }
    owner->wait();
}

TEST_F(CoreUdpLifecycle, ReInitZarnKeepsTheDeviceAndSaysSo)
{
    UdpPeer peer(QStringLiteral("127.0.0.1"), 1000);
    core_UDP transport;
    transport.setDeviceIP(QStringLiteral("127.0.0.1"));
    const MessageCapture capture;
    EXPECT_TRUE(QMetaObject::invokeMethod(&transport, "reInitUdpZarn"));
    EXPECT_EQ(capture.lines(),
              QStringList(QString(41, QLatin1Char('=')) + QLatin1Char(' ') + reInitLine));
    model_Protocoldata record = command(1);
    transport.sendDatatoDevice(&record);
    EXPECT_EQ(peer.receive().port, UdpPeer::linkPort);
}

TEST_F(CoreUdpLifecycle, ReInitDropsTheStoredReplyAndReceivesAgain)
{
    for (const char* slot : {"reInitUdp", "reInitUdpZarn"}) {
        hostqueue::clear();
        UdpPeer peer;
        core_UDP transport;
        const MessageCapture capture;
        peer.send(replyText(0x8b, 0x05));
        ASSERT_TRUE(eventually([&] { return capture.lines().size() == 2; }));
        ASSERT_TRUE(QMetaObject::invokeMethod(&transport, slot));
        peer.send("block bytes");
        const QString orphan = QStringLiteral("arrayreceived.isEmpty()||stdCMDIn.isEmpty()");
        ASSERT_TRUE(eventually([&] { return capture.count(orphan) == 1; }));
        EXPECT_EQ(hostqueue::size(), 0U);
    }
}

TEST_F(CoreUdpLifecycle, EveryReInitAddsAConnection)
{
    core_UDP transport;
    const MessageCapture capture;
    transport.reInitUdp();
    transport.reInitUdpZarn();
    EXPECT_EQ(capture.lines().size(), 2);
    Q_EMIT transport.signalReInitUdp();
    ASSERT_TRUE(eventually([&] { return capture.count(reInitLine) == 1 + 3; }));
    QCoreApplication::processEvents();
    EXPECT_EQ(capture.count(reInitLine), 1 + 3);
}

TEST_F(CoreUdpLifecycle, EachRecoveryDoublesTheRunsAndKeepsThePort)
{
    UdpPeer peer;
    core_UDP transport;
    const MessageCapture capture;
    const int descriptors = processstate::descriptors();
    int expected = 0;
    for (const int runs : {1, 2, 4, 8}) {
        model_Protocoldata record = command();
        record.arryDatablock = QByteArray(1000, 'x');
        transport.setDeviceIP(QStringLiteral("no address"));
        transport.sendDatatoDevice(&record); // both pieces fail: an unknown sum
        expected += runs;
        ASSERT_TRUE(eventually([&] { return capture.count(reInitLine) == expected; })) << runs;
        QCoreApplication::processEvents();
        EXPECT_EQ(capture.count(reInitLine), expected);
        EXPECT_TRUE(eventually([&] { return processstate::descriptors() == descriptors; }));
        EXPECT_EQ(localPortSeenBy(peer, transport), UdpPeer::linkPort);
    }
}

TEST_F(CoreUdpLifecycle, SocketsThatAreReplacedAreNotWatched)
{
    core_UDP transport;
    const MessageCapture capture(MessageCapture::Kind::Everything);
    QEventLoop loop;
    QTimer::singleShot(0, &transport, [&] {
        for (int i = 0; i < 3; ++i) {
            transport.reInitUdp();
        }
        QEventLoop inSlot; // where nothing is deleted later
        QTimer::singleShot(20, &inSlot, &QEventLoop::quit);
        inSlot.exec();
        loop.quit();
    });
    loop.exec();
    EXPECT_EQ(capture.lines().filter(QStringLiteral("QSocketNotifier")), QStringList());
    QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    EXPECT_EQ(transport.findChildren<QSocketNotifier*>().size(), 1);
}

TEST_F(CoreUdpLifecycle, InitCalledByTheHostReplacesTheSocket)
{
    UdpPeer peer;
    core_UDP transport;
    const int descriptors = processstate::descriptors();
    for (int i = 0; i < 3; ++i) {
        transport.initUdp();
        EXPECT_EQ(localPortSeenBy(peer, transport), UdpPeer::linkPort);
    }
    EXPECT_EQ(processstate::descriptors(), descriptors);
}

TEST_F(CoreUdpLifecycle, OperationsOfOtherLinksDoNothing)
{
    core_UDP transport;
    EXPECT_FALSE(transport.openSerialPort(QStringLiteral("/dev/null"), QSerialPort::Baud9600,
                                          QSerialPort::OneStop, QSerialPort::NoParity,
                                          QSerialPort::NoFlowControl, QSerialPort::Data8));
    EXPECT_FALSE(transport.openUSB(0x04b4, 0x1008));
    ICoreBase& base = transport;
    base.closeSerialPort();
    base.closeUSB();
    transport.senToUipro(nullptr);
    void* const nothing = nullptr;
    EXPECT_TRUE(QMetaObject::invokeMethod(&base, "processInfoDisplayonUI", Q_ARG(void*, nothing)));
}

TEST_F(CoreUdpLifecycle, AutoRecPadsToTwoCharacters)
{
    core_UDP transport;
    EXPECT_EQ(transport.autoRec(QString()), QStringLiteral("00"));
    EXPECT_EQ(transport.autoRec(QStringLiteral("7")), QStringLiteral("07"));
    EXPECT_EQ(transport.autoRec(QStringLiteral("ab")), QStringLiteral("ab"));
    EXPECT_EQ(transport.autoRec(QStringLiteral("abc")), QStringLiteral("abc"));
}

TEST_F(CoreUdpLifecycle, TakenPortIsSilentAndSendingStillWorks)
{
    UdpPeer occupant(QStringLiteral("0.0.0.0"), UdpPeer::linkPort);
    ASSERT_TRUE(occupant.bound());
    UdpPeer peer;
    const MessageCapture capture;
    core_UDP transport;
    EXPECT_TRUE(capture.lines().isEmpty());
    const quint16 port = localPortSeenBy(peer, transport);
    EXPECT_NE(port, 0);
    EXPECT_NE(port, UdpPeer::linkPort);
    peer.send(replyText(0x79, 0x0c), port); // to the port that the kernel has chosen
    QCoreApplication::processEvents();
    transport.readPendingDatagrams();
    EXPECT_TRUE(capture.lines().filter(QStringLiteral("Recv data:")).isEmpty());
    transport.reInitUdp();
}

TEST_F(CoreUdpLifecycle, ClearQueueEmptiesTheHostsQueueAndMayOutliveTheTransport)
{
    const int threads = processstate::threads();
    {
        auto transport = std::make_unique<core_UDP>();
        transport->addToReceivedQueue(command());
        const std::lock_guard lock(biz_CMDSWork::receiveHexCmdlock);
        transport->clearQueue(); // waits for the lock on a thread of its own
        transport.reset();
    }
    ASSERT_TRUE(eventually([] { return hostqueue::size() == 0; }));
    ASSERT_TRUE(eventually([threads] { return processstate::threads() <= threads; }));
}

TEST_F(CoreUdpLifecycle, ClearQueueWithoutAThreadStillClears)
{
    core_UDP transport;
    transport.addToReceivedQueue(command());
    {
        const ThreadRefusal refusal;
        transport.clearQueue();
    }
    EXPECT_TRUE(eventually([] { return hostqueue::size() == 0; }));
}

TEST_F(CoreUdpLifecycle, DestroyedWithThousandsOfRepliesPending)
{
    constexpr std::size_t replies = 3000;
    UdpPeer peer;
    {
        const std::lock_guard lock(biz_CMDSWork::receiveHexCmdlock);
        core_UDP transport;
        const MessageCapture capture;
        for (std::size_t i = 0; i < replies; ++i) {
            peer.send(replyText(0x8b, 0x09));
            peer.send(QByteArray(129, 'b'));
        }
        ASSERT_TRUE(eventually([&] {
            return capture.lines().filter(QStringLiteral("host ip:")).size() == 2 * replies;
        }));
    }
    ASSERT_TRUE(eventually([] { return hostqueue::size() == replies; }));
    EXPECT_EQ(hostqueue::records().back().arryDatablock, QByteArray(129, 'b'));
}

// A long frame that meets the forgotten address asks for a re-initialisation, and each of these
// doubles the next: so few of them, and frames of one datagram as many as will go.
TEST_F(CoreUdpLifecycle, SystemPlanReInitAndDestructionMeet)
{
    const int threads = processstate::threads();
    UdpPeer peer;
    MessageCapture capture;
    for (int round = 0; round < 30; ++round) {
        capture.clear();
        auto transport = std::make_unique<core_UDP>();
        transport->setDeviceIP(QStringLiteral("127.0.0.1"));
        std::atomic<int> reInits{0};
        std::atomic<int> sends{0};
        std::atomic<bool> stop{false};
        std::vector<std::thread> senders;
        senders.reserve(3);
        for (int sender = 0; sender < 3; ++sender) {
            senders.emplace_back([&, sender] {
                model_Protocoldata record = command(sender);
                record.strKey = QStringLiteral("127.0.0.1");
                bool longSent = false;
                while (!stop) {
                    const bool isLong = !longSent && reInits > sender;
                    longSent = longSent || isLong;
                    record.arryDatablock = QByteArray(isLong ? 1200 : 521, 'x');
                    transport->sendDatatoDeviceForSysPlan(&record);
                    transport->sendDatatoDevice(&record);
                    transport->setDeviceIP(QStringLiteral("127.0.0.1"));
                    transport->setPort(peer.port());
                    ++sends;
                }
            });
        }
        for (int i = 0; i < 5; ++i) {
            const int before = sends;
            EXPECT_TRUE(eventually([&] { return sends > before + 3; }));
            ++reInits;
            if (i == 2) {
                transport->reInitUdp();
            } else {
                transport->reInitUdpZarn();
            }
        }
        stop = true;
        for (std::thread& sender : senders) {
            sender.join();
        }
        transport.reset(); // frames of the system plan may still be pending
    }
    ASSERT_TRUE(eventually([threads] { return processstate::threads() <= threads; }));
}

TEST_F(CoreUdpLifecycle, ARebuildBreaksNoFrame)
{
    UdpPeer peer;
    const MessageCapture capture;
    core_UDP transport;
    transport.setDeviceIP(QStringLiteral("127.0.0.1"));
    std::atomic<int> sends{0};
    std::atomic<bool> stop{false};
    std::vector<std::thread> senders;
    senders.reserve(3);
    for (int sender = 0; sender < 3; ++sender) {
        senders.emplace_back([&, sender] {
            while (!stop) {
                transport.sendUdpData(QByteArray(sender == 0 ? 19 : 1620, 'x'));
                ++sends;
            }
        });
    }
    for (int i = 0; i < 200; ++i) {
        const int before = sends;
        transport.reInitUdpZarn();
        transport.setPort(peer.port());
        EXPECT_TRUE(eventually([&] { return sends > before; }));
    }
    stop = true;
    for (std::thread& sender : senders) {
        sender.join();
    }
    const QStringList lines = capture.lines();
    EXPECT_EQ(lines.filter(QStringLiteral("failed")), QStringList());
    EXPECT_EQ(lines.filter(QStringLiteral("unknown")), QStringList());
}

TEST_F(CoreUdpLifecycle, HostMaySendWhileItIsAskedForTheDeviceType)
{
    UdpPeer peer;
    core_UDP transport;
    transport.setDeviceIP(QStringLiteral("127.0.0.1"));
    transport.setPort(peer.port());
    whenAskedForTheDeviceType = [&transport] { transport.sendUdpData("frame"); };
    MessageCapture capture;
    transport.reInitUdpZarn();
    EXPECT_FALSE(whenAskedForTheDeviceType);
    EXPECT_EQ(capture.lines().mid(1), QStringList(QStringLiteral("Send successful")));
    EXPECT_EQ(peer.receive().bytes, QByteArray("frame"));

    // The address is forgotten by then, and one that is set meanwhile stays.
    transport.setPort(peer.port());
    whenAskedForTheDeviceType = [&transport] {
        transport.sendUdpData("lost");
        transport.setDeviceIP(QStringLiteral("127.0.0.1"));
    };
    transport.reInitUdp();
    EXPECT_EQ(capture.count(QStringLiteral("Send Broadcast failed")), 1);
    transport.setPort(peer.port());
    transport.sendUdpData("kept");
    EXPECT_EQ(peer.receive().bytes, QByteArray("kept"));
}

TEST_F(CoreUdpLifecycle, PendingReInitRequestDiesWithTheTransport)
{
    const int threads = processstate::threads();
    for (int round = 0; round < 200; ++round) {
        core_UDP transport;
        transport.setDeviceIP(QStringLiteral("no address"));
        model_Protocoldata record = command();
        record.strKey = QStringLiteral("no address");
        record.arryDatablock = QByteArray(1000, 'x');
        transport.sendDatatoDeviceForSysPlan(&record);
    }
    ASSERT_TRUE(eventually([threads] { return processstate::threads() <= threads; }));
}

using CoreUdpLifecycleDeathTest = CoreUdpLifecycle;

TEST_F(CoreUdpLifecycleDeathTest, ExitWithFramesOfTheSystemPlanPending)
{
    EXPECT_EXIT(
        {
            core_UDP transport;
            transport.setDeviceIP(QStringLiteral("127.0.0.1"));
            transport.setPort(UdpPeer::linkPort);
            model_Protocoldata record = command();
            record.strKey = QStringLiteral("127.0.0.1");
            record.arryDatablock = QByteArray(60000, 'x');
            for (int i = 0; i < 1500; ++i) {
                transport.sendDatatoDeviceForSysPlan(&record);
            }
            std::exit(0);
        },
        ::testing::ExitedWithCode(0), "");
}

// In a process of its own: the library's threads stay once they are there.
TEST(CoreUdpThreadsDeathTest, ALinkThatIsRefusedAThreadSaysSoAndOpensOnceItGetsOne)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const QString line = QStringLiteral("UDP: the system refuses a thread, link closed");
    EXPECT_EXIT(
        {
            std::optional<ThreadRefusal> refusal(std::in_place);
            core_UDP transport;
            const auto refused = hostqueue::countLog(line);
            refusal.reset();
            transport.reInitUdp();
            std::exit(refused == 1 && hostqueue::countLog(line) == 1 ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
}
