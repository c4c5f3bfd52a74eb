// SPDX-License-Identifier: MIT
// What a slow host, a flood and a short supply cost: their own line, their own reply, and no more.
#include "biz_cmdswork.h"
#include "core_udp.h"
#include "eventlog.h"
#include "hostqueue.h"
#include "messagecapture.h"
#include "processstate.h"
#include "threadrefusal.h"
#include "udppeer.h"
#include "utility_manage.h"
#include "wakeups.h"

#include <gtest/gtest.h>

#include <QElapsedTimer>
#include <QNetworkProxy>
#include <QSocketNotifier>
#include <QTcpServer>
#include <QTimer>

#include <atomic>
#include <memory>
#include <thread>

#include <dlfcn.h>
#include <sys/resource.h>

namespace
{

std::atomic<bool> logBlocks{false};
std::atomic<int> linesUnderWay{0};

const QString orphanBlock = QStringLiteral("arrayreceived.isEmpty()||stdCMDIn.isEmpty()");

// While it exists, nobody's line gets into the host's log.
class BlockedLog
{
public:
    BlockedLog() { logBlocks = true; }
    ~BlockedLog()
    {
        logBlocks = false;
        eventually([] { return linesUnderWay == 0; });
    }
    BlockedLog(const BlockedLog&) = delete;
    BlockedLog& operator=(const BlockedLog&) = delete;
};

// As many descriptors as the process has now, and none more.
class NoDescriptors
{
public:
    NoDescriptors()
    {
        getrlimit(RLIMIT_NOFILE, &before);
        rlimit now = before;
        now.rlim_cur = 0;
        setrlimit(RLIMIT_NOFILE, &now);
    }
    ~NoDescriptors() { setrlimit(RLIMIT_NOFILE, &before); }
    NoDescriptors(const NoDescriptors&) = delete;
    NoDescriptors& operator=(const NoDescriptors&) = delete;

private:
    rlimit before{};
};

model_Protocoldata command(int number, const QString& address)
{
    model_Protocoldata record;
    record.CMD = static_cast<quint8>(number);
    record.strKey = address;
    return record;
}

bool queued(std::size_t count)
{
    return eventually([count] { return hostqueue::size() == count; });
}

} // namespace

// Takes the place of the reference host's, which still writes.
void Utility_Manage::writeLog(QString text)
{
    ++linesUnderWay;
    while (logBlocks) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    using Write = void (*)(QString);
    static const auto write =
        reinterpret_cast<Write>(dlsym(RTLD_NEXT, "_ZN14Utility_Manage8writeLogE7QString"));
    write(text);
    --linesUnderWay;
}

class CoreUdpIndependence : public ::testing::Test
{
protected:
    void SetUp() override
    {
        hostqueue::clear();
        transport.setDeviceIP(QStringLiteral("127.0.0.1"));
        transport.setPort(peer.port());
        Utility_Manage::setDeviceType(model_GlobalEnum::Device353100);
        other = std::make_unique<core_UDP>(); // on port 3005
        Utility_Manage::setDeviceType(model_GlobalEnum::DeviceUnknown);
    }

    const int threads = processstate::threads(); // before there is a link
    UdpPeer peer;
    core_UDP transport;
    std::unique_ptr<core_UDP> other;
};

TEST_F(CoreUdpIndependence, SystemPlanFramesGoToTheDeviceThatTheyWereAcceptedFor)
{
    UdpPeer second(QStringLiteral("127.0.0.2"), peer.port());
    ASSERT_TRUE(second.bound());
    const BlockedLog blocked;
    constexpr int frames = 100;
    for (int i = 0; i < frames; ++i) {
        const QString address = QStringLiteral("127.0.0.%1").arg(1 + i % 2);
        transport.setDeviceIP(address);
        model_Protocoldata record = command(i, address);
        transport.sendDatatoDeviceForSysPlan(&record);
    }
    for (int i = 0; i < frames; ++i) {
        EXPECT_EQ((i % 2 == 0 ? peer : second).receive().bytes.mid(6, 2).toInt(nullptr, 16), i);
    }
}

// The tenth is on the wire while the line of the first is still being written.
TEST_F(CoreUdpIndependence, SystemPlanFramesWaitForNoLogLine)
{
    const MessageCapture capture;
    {
        const BlockedLog blocked;
        for (int i = 0; i < 10; ++i) {
            model_Protocoldata record = command(i, QStringLiteral("127.0.0.1"));
            transport.sendDatatoDeviceForSysPlan(&record);
        }
        for (int i = 0; i < 10; ++i) {
            EXPECT_EQ(peer.receive().bytes.mid(6, 2).toInt(nullptr, 16), i);
        }
        EXPECT_EQ(hostqueue::logLines().filter(QStringLiteral("Send successful:")).size(), 0);
    }
    EXPECT_TRUE(eventually([] {
        return hostqueue::logLines().filter(QStringLiteral("Send successful:")).size() == 10;
    }));
    EXPECT_EQ(capture.count(QStringLiteral("Send successful")), 10);
}

TEST_F(CoreUdpIndependence, AValidReplyWaitsForNoFailureReport)
{
    const BlockedLog blocked;
    for (int i = 0; i < 200; ++i) {
        peer.send("undecodable", 3005);
    }
    ASSERT_TRUE(eventually([] { return linesUnderWay == 1; })); // of 200, the first
    hostqueue::setFlag(false);
    peer.send(replyText(0x10, 1)); // to the one transport
    peer.send(replyText(0x10, 2), 3005);
    EXPECT_TRUE(eventually([] { return hostqueue::size() == 2 && hostqueue::flag(); }));
    EXPECT_EQ(hostqueue::countLog(orphanBlock), 0);
}

TEST_F(CoreUdpIndependence, AFailedJoinRaisesTheFlagAlthoughTheHostHoldsItsQueue)
{
    for (const bool replyWaits : {false, true}) {
        hostqueue::clear();
        {
            const BlockedLog blocked;
            const std::lock_guard lock(biz_CMDSWork::receiveHexCmdlock);
            if (replyWaits) {
                peer.send(replyText(0x10, 1));
            }
            peer.send("undecodable");
            EXPECT_TRUE(eventually([] { return hostqueue::flag(); })) << replyWaits;
        }
        EXPECT_TRUE(queued(replyWaits ? 1 : 0));
    }
    EXPECT_TRUE(eventually([] { return hostqueue::countLog(orphanBlock) == 2; }));
}

namespace
{

// What has happened when a failure's debug line comes.
std::atomic<int> failureLines{0};
std::atomic<bool> flagWasUp{false};
std::atomic<bool> wasLogged{false};

void noteFailure(QtMsgType /*type*/, const QMessageLogContext& /*context*/, const QString& text)
{
    if (text == orphanBlock) {
        flagWasUp = hostqueue::flag();
        wasLogged = linesUnderWay > 0 || hostqueue::countLog(orphanBlock) > failureLines;
        ++failureLines;
    }
}

} // namespace

TEST_F(CoreUdpIndependence, AFailedJoinRaisesTheFlagThenWritesTheLineThenTheLog)
{
    QLoggingCategory::defaultCategory()->setEnabled(QtDebugMsg, true);
    const auto before = qInstallMessageHandler(noteFailure);
    transport.combineSTDCMDandBloackCMD("block", QByteArray());
    EXPECT_EQ(failureLines, 1);
    EXPECT_TRUE(flagWasUp);
    EXPECT_FALSE(wasLogged);
    EXPECT_EQ(hostqueue::countLog(orphanBlock), 1);

    hostqueue::setFlag(false);
    peer.send("undecodable");
    EXPECT_TRUE(eventually([] { return hostqueue::countLog(orphanBlock) == 2; }));
    EXPECT_EQ(failureLines, 2);
    EXPECT_TRUE(hostqueue::flag());
    EXPECT_FALSE(wasLogged);
    qInstallMessageHandler(before);
}

TEST_F(CoreUdpIndependence, AFloodTakesNoFurtherThreadAndRefusedOnesLoseNothing)
{
    QLoggingCategory::defaultCategory()->setEnabled(QtDebugMsg, false);
    ASSERT_TRUE(eventually([this] { return processstate::threads() == threads; }));
    constexpr int rounds = 20;
    constexpr int each = 50;
    {
        const BlockedLog blocked;
        const std::lock_guard lock(biz_CMDSWork::receiveHexCmdlock);
        const ThreadRefusal refusal;
        const int refused = ThreadRefusal::refused();
        for (int round = 0; round < rounds; ++round) {
            for (int i = 0; i < each; ++i) {
                peer.send(replyText(0x10, i));
                peer.send("undecodable");
                peer.send("undecodable", 3005);
                model_Protocoldata record = command(i, QStringLiteral("127.0.0.1"));
                transport.sendDatatoDeviceForSysPlan(&record);
            }
            QCoreApplication::processEvents();
            EXPECT_EQ(processstate::threads(), threads);
        }
        EXPECT_EQ(ThreadRefusal::refused(), refused);
    }
    EXPECT_TRUE(queued(std::size_t{rounds} * each));
    EXPECT_TRUE(eventually(
        [] { return hostqueue::countLog(orphanBlock) == qsizetype{2} * rounds * each; }));
    EXPECT_TRUE(eventually([] {
        return hostqueue::logLines().filter(QStringLiteral("Send successful:")).size() ==
               rounds * each;
    }));
}

// Then the kernel's buffer takes what comes. A host that reads by itself gets it all the same.
TEST_F(CoreUdpIndependence, AFullBacklogOfLinesHoldsTheReaderBack)
{
    QLoggingCategory::defaultCategory()->setEnabled(QtDebugMsg, false);
    constexpr int limit = 65536;
    std::thread sender;
    {
        const BlockedLog blocked;
        for (int sent = 0; sent < limit + 1000; sent += 500) {
            for (int i = 0; i < 500; ++i) {
                peer.send("undecodable");
            }
            transport.readPendingDatagrams();
        }
        peer.send(replyText(0x10, 1));
        EXPECT_FALSE(
            eventually([] { return hostqueue::size() == 1; }, std::chrono::milliseconds(100)));
        EXPECT_LT(wakeUps(), 300); // one every 20 ms, although there is a datagram
        EXPECT_EQ(transport.findChildren<QSocketNotifier*>().size(), 1);
        EXPECT_EQ(hostqueue::size(), 0U);
        transport.readPendingDatagrams();
        EXPECT_EQ(hostqueue::size(), 1U);
        peer.send(replyText(0x10, 2));
        // Who fills it is held back, too, by the line of its own frame.
        sender = std::thread([this] {
            model_Protocoldata record = command(1, QStringLiteral("127.0.0.1"));
            transport.sendDatatoDeviceForSysPlan(&record);
        });
        EXPECT_TRUE(eventually([] { return linesUnderWay == 2; }));
    }
    sender.join();
    EXPECT_TRUE(queued(2));
    EXPECT_TRUE(eventually([] { return hostqueue::countLog(orphanBlock) >= limit; }));
}

TEST_F(CoreUdpIndependence, AFloodLeavesOtherEventsTheirTurn)
{
    class Slow : public LinkObserver
    {
    public:
        std::atomic<int> heard{0};

    private:
        void onEvent(const LinkEvent& event) override
        {
            heard += event.kind == LinkEvent::Kind::Received ? 1 : 0;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    };
    const auto slow = std::make_shared<Slow>();
    QCoreApplication::processEvents();
    transport.addObserver(slow);
    for (int i = 0; i < 200; ++i) {
        peer.send(replyText(0x10, i % 100));
    }
    QCoreApplication::processEvents();
    EXPECT_GE(slow->heard, 1);
    EXPECT_LE(slow->heard, 10); // in 5 ms
    EXPECT_TRUE(queued(200));
}

TEST_F(CoreUdpIndependence, ADestructorWaitsForNoHostCode)
{
    const std::lock_guard lock(biz_CMDSWork::receiveHexCmdlock);
    const BlockedLog blocked;
    auto doomed = std::move(other);
    for (int i = 0; i < 100; ++i) {
        peer.send("undecodable", 3005);
        peer.send(replyText(0x10, i), 3005);
    }
    ASSERT_TRUE(eventually([] { return linesUnderWay == 1; }));
    doomed->clearQueue();
    doomed.reset(); // or the test never ends
}

TEST_F(CoreUdpIndependence, SendsAgainOnceThereIsADescriptor)
{
    for (const bool rebuilt : {false, true}) {
        hostqueue::clear();
        other.reset();
        std::unique_ptr<core_UDP> late;
        // UBSan needs descriptors to look at an object of a class that it has not seen yet.
        QLoggingCategory::defaultCategory()->setEnabled(QtDebugMsg, false);
        Utility_Manage::setDeviceType(model_GlobalEnum::Device353100);
        if (rebuilt) {
            late = std::make_unique<core_UDP>();
        }
        {
            const NoDescriptors none;
            if (rebuilt) {
                late->reInitUdp();
            } else {
                late = std::make_unique<core_UDP>();
            }
            late->setDeviceIP(QStringLiteral("127.0.0.1"));
            late->setPort(peer.port());
            late->sendUdpData("lost");
        }
        EXPECT_FALSE(peer.hasDatagram());
        const auto log = std::make_shared<EventLog>();
        late->addObserver(log);
        std::thread([&late] { late->sendUdpData("first"); }).join();
        EXPECT_EQ(log->all(EventLog::Kind::Opened).size(), 1U);
        const UdpPeer::Datagram first = peer.receive();
        EXPECT_EQ(first.bytes, QByteArray("first"));
        EXPECT_EQ(first.port, 3005);
        QCoreApplication::processEvents(); // the transport listens from here on
        peer.send(replyText(0x10, 1), 3005);
        EXPECT_TRUE(queued(1));
        late.reset();
    }
}

TEST_F(CoreUdpIndependence, AnApplicationsProxyIsNotAsked)
{
    QTcpServer proxy;
    ASSERT_TRUE(proxy.listen(QHostAddress::LocalHost));
    QNetworkProxy::setApplicationProxy(
        {QNetworkProxy::Socks5Proxy, QStringLiteral("127.0.0.1"), proxy.serverPort()});
    transport.reInitUdpZarn();
    transport.setPort(peer.port());
    transport.sendUdpData("direct");
    EXPECT_EQ(peer.receive().bytes, QByteArray("direct"));
    peer.send(replyText(0x10, 1));
    EXPECT_TRUE(queued(1));
    EXPECT_FALSE(proxy.hasPendingConnections());
    QNetworkProxy::setApplicationProxy(QNetworkProxy::NoProxy);
}

// A reader that is slower than its senders never comes to an end, but its thread's timers fire.
// Each datagram costs the host's message handler a millisecond.
TEST_F(CoreUdpIndependence, AReaderThatNeverCatchesUpLeavesItsThreadItsTurn)
{
    std::atomic<bool> stop{false};
    std::thread sender([&stop] {
        UdpPeer flooding;
        while (!stop) {
            flooding.send(replyText(0x10, 1));
        }
    });
    ASSERT_TRUE(eventually([] { return hostqueue::size() > 0; }));
    const QtMessageHandler before =
        qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        });
    int ticks = 0;
    QTimer timer;
    QObject::connect(&timer, &QTimer::timeout, [&ticks] { ++ticks; });
    timer.start(10);
    EXPECT_TRUE(eventually([&ticks] { return ticks >= 20; }));
    stop = true;
    sender.join();
    qInstallMessageHandler(before);
}
