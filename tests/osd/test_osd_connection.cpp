// SPDX-License-Identifier: MIT
#include "descriptorlimit.h"
#include "eventlog.h"
#include "eventually.h"
#include "fixedlocalport.h"
#include "netns.h"
#include "osdconnection.h"
#include "osdhost.h"
#include "osdsimulator.h"
#include "processstate.h"
#include "shortest.h"
#include "tcplistener.h"
#include "threadrefusal.h"
#include "utility_manage.h"

#include <gtest/gtest.h>

#include <QTcpServer>
#include <QTcpSocket>

#include <cerrno>
#include <functional>
#include <thread>

#include <linux/sockios.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

constexpr Faults::Setting always{1.0, 0, 0};

std::function<void(const QString& line)> whenLogged;

class OsdConnecting : public ::testing::Test
{
protected:
    void SetUp() override
    {
        OsdSimulatorOptions options;
        options.port = 0;
        simulated = std::make_unique<OsdSimulator>(options);
        ASSERT_TRUE(simulated->start());
        endpoint.setAddress({QStringLiteral("127.0.0.1"), simulated->port()});
        descriptors = processstate::descriptors();
    }

    void TearDown() override { end(); }

    void begin()
    {
        connection->begin();
        ASSERT_TRUE(eventually([&] { return simulated->connected() == 1; }));
        simulated->send("."); // and on this side, too, when that is there
        ASSERT_TRUE(eventually([&] { return endpoint.received.size() == 1; }));
    }

    void end()
    {
        endpoint.token.set(false);
        connection->closeSocket();
        connection->quit();
        EXPECT_TRUE(eventually([&] { return !endpoint.token.isRunning(); }));
    }

    void send(const QByteArray& bytes) { connection->send(bytes); }

    // Fills what is kept for the parser, and more is to come.
    void flood()
    {
        constexpr int limit = ReceiveBuffer::limit;
        simulated->send(QByteArray(4 * limit, 'f'));
        ASSERT_TRUE(eventually([&] { return endpoint.received.size() >= limit; }));
    }

    static constexpr int most = ReceiveBuffer::limit + 2 * 64 * 1024;

    std::unique_ptr<OsdSimulator> simulated;
    std::shared_ptr<OsdConnection> connection = std::make_shared<OsdConnection>(nullptr);
    OsdEndpoint& endpoint = connection->endpoint;
    int descriptors = 0;
};

// A parser that never looks at the socket.
class IdleParser
{
public:
    explicit IdleParser(RunToken& token)
        : thread([this, &token] {
              token.run([this] {
                  while (blocks) {
                      std::this_thread::sleep_for(std::chrono::milliseconds(1));
                  }
              });
          })
    {
        EXPECT_TRUE(eventually([&token] { return token.isRunning(); }));
    }
    ~IdleParser()
    {
        blocks = false;
        thread.join();
    }
    IdleParser(const IdleParser&) = delete;
    IdleParser& operator=(const IdleParser&) = delete;

private:
    std::atomic<bool> blocks{true};
    std::thread thread; // below what it uses
};

// The descriptor of this process that is connected to the port; -1 if there is none.
int connectedTo(int port)
{
    for (int descriptor = 0; descriptor < 1024; ++descriptor) {
        sockaddr_in peer{};
        socklen_t length = sizeof peer;
        if (getpeername(descriptor, reinterpret_cast<sockaddr*>(&peer), &length) == 0 &&
            ntohs(peer.sin_port) == port) {
            return descriptor;
        }
    }
    return -1;
}

} // namespace

// Takes the place of the reference host's.
void Utility_Manage::writeLog(QString text)
{
    if (whenLogged) {
        whenLogged(text);
    }
}

// The repetitions come after 1, 2, 4 and 8 s, and 16 s after the last one it is over.
TEST_F(OsdConnecting, AnEndpointThatDoesNotAnswerIsAskedFourTimesMore)
{
    begin();
    int repetitions = 0;
    socklen_t length = sizeof repetitions;
    ASSERT_EQ(
        getsockopt(connectedTo(simulated->port()), IPPROTO_TCP, TCP_SYNCNT, &repetitions, &length),
        0);
    EXPECT_EQ(repetitions, 4);
}

TEST_F(OsdConnecting, WithoutADescriptorTheLogSaysSoAndTheHostMayComeBack)
{
    begin();
    QStringList said;
    whenLogged = [&](const QString& line) {
        said << line;
        connection->send("");
    };
    {
        const DescriptorLimit limit(3);
        connection->open();
    }
    EXPECT_EQ(said, QStringList(QStringLiteral("OSD endpoint 127.0.0.1, port %1: not connected, "
                                               "no descriptor or thread left")
                                    .arg(simulated->port())));
    whenLogged = nullptr;
}

// This thread does the worker's work.
TEST_F(OsdConnecting, NothingIsReadWhileItsSignalsAreBroken)
{
    endpoint.token.set(true);
    endpoint.token.run([&] {
        connection->open();
        ASSERT_TRUE(eventually([&] { return simulated->connected() == 1; }));
        simulated->send("OK1");
        int arrived = 0;
        ASSERT_TRUE(eventually([&] {
            ioctl(connectedTo(simulated->port()), FIONREAD, &arrived);
            return arrived == 3;
        }));
        connection->look(false);
        EXPECT_EQ(endpoint.received.size(), 0);
        connection->connectSignals();
        connection->look(false);
        EXPECT_EQ(endpoint.received.size(), 3);
    });
}

TEST_F(OsdConnecting, AnEmptyWriteIsNoFailure)
{
    begin();
    errno = EPIPE; // of an earlier call
    send("");
    send("x");
    EXPECT_TRUE(eventually([&] { return simulated->received() == "x"; }));
}

TEST_F(OsdConnecting, AStopWinsOverAStartThatComesLate)
{
    for (int i = 0; i < 20; ++i) {
        connection->begin();
        endpoint.token.set(false);
        connection->quit();
        ASSERT_TRUE(eventually([&] { return !endpoint.token.isRunning(); }));
        EXPECT_FALSE(endpoint.token.isSet());
    }
    EXPECT_TRUE(eventually([&] { return processstate::descriptors() == descriptors; }));
    EXPECT_TRUE(eventually([&] { return simulated->connected() == 0; }));
}

TEST(OsdParsers, TakeTurns)
{
    constexpr int count = 20'000;
    OsdEndpoint endpoint;
    endpoint.received.append(QByteArray("xOK1").repeated(count));
    std::atomic<int> taken{0};
    const auto parse = [&] {
        for (int i = 0; i < count; ++i) {
            taken += endpoint.parseOnce() == "OK1" ? 1 : 0;
        }
    };
    std::thread other(parse);
    parse();
    other.join();
    EXPECT_EQ(taken, count);
    EXPECT_EQ(endpoint.received.size(), 0);
}

TEST(OsdParsers, LookEveryThreeMilliseconds)
{
    constexpr int count = 100;
    constexpr qint64 atTenTimesThat = qint64{30} * count;
    OsdEndpoint endpoint;
    endpoint.tap = std::make_shared<LinkTap>();
    const auto takeAll = [&] {
        endpoint.received.append(QByteArray("OK1").repeated(count));
        endpoint.token.set(true);
        endpoint.deal([&] {
            if (endpoint.received.size() == 0) {
                endpoint.token.set(false);
            }
        });
    };
    const qint64 took = shortest(atTenTimesThat, [&] { return elapsed(takeAll); });
    EXPECT_GE(took, count * 3);
    EXPECT_LT(took, atTenTimesThat);
}

TEST(OsdParsers, TellWhatWasNotedJustBeforeTheStop)
{
    OsdEndpoint endpoint;
    endpoint.tap = std::make_shared<LinkTap>();
    const auto log = std::make_shared<EventLog>();
    endpoint.tap->add(log);
    endpoint.token.set(false);
    endpoint.note(LinkEvent::Kind::Lost);
    endpoint.deal([] {});
    EXPECT_EQ(log->all(LinkEvent::Kind::Lost).size(), 1U);
}

TEST(OsdParsers, DropAKibibyteAtOnceAndTellOfIt)
{
    OsdEndpoint endpoint;
    const auto log = std::make_shared<EventLog>();
    endpoint.tap->add(log);
    endpoint.received.append(QByteArray(1500, 'x'));
    EXPECT_EQ(endpoint.parseOnce(), QByteArray());
    EXPECT_EQ(endpoint.received.size(), 1500 - 1024);
    endpoint.received.clear();
    endpoint.received.append("yOK1");
    EXPECT_EQ(endpoint.parseOnce(), "OK1");
    endpoint.tellNoted();
    EXPECT_EQ(log->bytes(LinkEvent::Kind::Skipped), QByteArray(1024, 'x') + 'y');
}

TEST_F(OsdConnecting, NothingIsOpenedBehindAStop)
{
    connection->open();
    EXPECT_EQ(processstate::descriptors(), descriptors);
}

TEST_F(OsdConnecting, AStartWaitsForTheStopBeforeIt)
{
    begin();
    int starts = 0; // a busy machine may need more than the 500 ms that it waits
    for (int i = 0; i < 10 && starts == 0; ++i) {
        endpoint.token.set(false);
        connection->quit();
        connection->begin();
        starts += endpoint.token.isSet() ? 1 : 0;
    }
    EXPECT_EQ(starts, 1);
}

TEST_F(OsdConnecting, ASecondStartDoesNotWait)
{
    begin();
    EXPECT_LT(shortest(400, [&] { return elapsed([&] { connection->begin(); }); }), 400); // 0 ms
}

TEST_F(OsdConnecting, AStartGivesTheParserBeforeItHalfASecond)
{
    endpoint.token.set(false);
    const IdleParser parser(endpoint.token);
    const qint64 time = elapsed([&] { connection->begin(); });
    EXPECT_GE(time, 500);
    EXPECT_LT(time, 4000);
    EXPECT_FALSE(connection->isRunning());
}

TEST_F(OsdConnecting, ALookWaitsOnlyWhileThereIsNoAcknowledgement)
{
    const IdleParser parser(endpoint.token);
    connection->connectSignals();
    connection->open();
    EXPECT_TRUE(eventually([&] {
        connection->look(true);
        return simulated->connected() == 1;
    }));
    const auto looks = [&] {
        return elapsed([&] {
            for (int i = 0; i < 50; ++i) {
                connection->look(true);
            }
        });
    };
    endpoint.received.append("OK");
    EXPECT_GE(looks(), 900); // 20 ms each
    endpoint.received.append("1");
    EXPECT_LT(shortest(500, looks), 500);
}

TEST_F(OsdConnecting, ARefusedParserLeavesNoThreadBehind)
{
    for (int i = 0; i < 10; ++i) {
        const ThreadRefusal refusal(1); // the connection's own is the first
        connection->begin();
        EXPECT_TRUE(connection->isFinished());
    }
}

TEST_F(OsdConnecting, AsksForTheFixedPortOverIpv6Too)
{
    QTcpServer server;
    if (!server.listen(QHostAddress::LocalHostIPv6)) {
        GTEST_SKIP() << "IPv6 is missing";
    }
    endpoint.setAddress({QStringLiteral("::1"), server.serverPort()});
    connection->begin();
    ASSERT_TRUE(server.waitForNewConnection(10'000));
    EXPECT_EQ(server.nextPendingConnection()->peerPort(), fixedLocalPort());
}

TEST_F(OsdConnecting, AWriteEndsWithAStop)
{
    netns::limitBuffers();
    begin();
    simulated->setFault(Fault::NeverRead, always);
    std::thread stop([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        endpoint.token.set(false);
    });
    EXPECT_LT(elapsed([&] { send(QByteArray(1024 * 1024, 'm')); }), 1900); // not its 2000
    stop.join();
    simulated->setFault(Fault::NeverRead, {}); // the close would wait for it
}

TEST_F(OsdConnecting, AFloodIsHeldBack)
{
    begin();
    flood();
    for (int i = 0; i < 10; ++i) {
        connection->take(osdhost::command(QStringLiteral("127.0.0.1")));
        send("w");
    }
    EXPECT_FALSE(eventually([&] { return endpoint.received.size() > most; },
                            std::chrono::milliseconds(300)));
    // It goes on when there is room again.
    endpoint.received.discard(most);
    EXPECT_TRUE(eventually([&] { return endpoint.received.size() > 512 * 1024; }));
}

TEST_F(OsdConnecting, AFloodIsHeldBackDuringAWrite)
{
    netns::limitBuffers();
    begin();
    simulated->setFault(Fault::NeverRead, always);
    flood();
    const double before = processstate::cpuSeconds();
    send(QByteArray(1024 * 1024, 'm'));                // in vain
    EXPECT_LT(processstate::cpuSeconds() - before, 1); // of 2 s
    EXPECT_LE(endpoint.received.size(), most);
    simulated->setFault(Fault::NeverRead, {}); // the close would wait for it
}

TEST_F(OsdConnecting, ObserversHearOfAWriteThatFailsNotOfOneThatWaits)
{
    netns::limitBuffers();
    const auto log = std::make_shared<EventLog>();
    endpoint.tap->add(log);
    begin();
    simulated->setFault(Fault::NeverRead, always);
    QByteArray frame;
    while (frame.size() < 1024 * 1024) {
        frame += QByteArray::number(frame.size());
    }
    send(frame); // waits in vain
    simulated->hangUp(true);
    EXPECT_TRUE(log->has(1, LinkEvent::Kind::Lost));
    EXPECT_LE(log->all(LinkEvent::Kind::SendFailed).size(), 1U);
    EXPECT_TRUE(log->bytes(LinkEvent::Kind::Sent) + log->bytes(LinkEvent::Kind::SendFailed) ==
                frame);
}

TEST_F(OsdConnecting, AHangUpIsNoticedWhileTheFloodIsHeldBack)
{
    begin();
    const QByteArray waiting = QByteArray("OKw").repeated(6 * 1024 * 1024);
    const QByteArray more(100 * 1024, 'm');
    endpoint.received.append(waiting);
    simulated->send(more);
    simulated->hangUp(false);
    EXPECT_TRUE(eventually([&] { return !endpoint.token.isSet(); }));
    EXPECT_TRUE(endpoint.received.peek(0x7fffffff).endsWith(more));
}

// A write that waits notices the reset first, not a read.
TEST_F(OsdConnecting, AResetLosesNothingThatIsHeldBackThoughAWriteIsStuck)
{
    const TcpListener listener{1};
    endpoint.setAddress({QStringLiteral("127.0.0.1"), listener.port()});
    connection->begin();
    const int server = listener.accept();
    ASSERT_EQ(::send(server, ".", 1, MSG_NOSIGNAL), 1);
    ASSERT_TRUE(eventually([&] { return endpoint.received.size() == 1; }));
    connection->take(osdhost::command(QStringLiteral("127.0.0.1"), 'm', QByteArray(64 << 20, 'm')));
    endpoint.received.append(QByteArray("OKw").repeated(6 * 1024 * 1024));
    const QByteArray more(4096, 'm');
    ASSERT_EQ(::send(server, more.constData(), 4096, MSG_NOSIGNAL), 4096);
    ASSERT_TRUE(eventually([server] { // acknowledged: this side has it
        int underWay = 1;
        return ioctl(server, SIOCOUTQ, &underWay) == 0 && underWay == 0;
    }));
    ::close(server); // with commands unread
    EXPECT_TRUE(eventually([&] { return !endpoint.token.isSet(); }));
    EXPECT_TRUE(endpoint.received.peek(0x7fffffff).endsWith(more));
}

// Closing a socket with something unread in it resets the connection: what is on its way is lost.
TEST_F(OsdConnecting, AnUnreadAcknowledgementCostsNothingThatIsOnItsWay)
{
    netns::limitBuffers();
    const QByteArray much(1024 * 1024, 'm');
    simulated->setFault(Fault::Drop, always);
    for (int round = 0; round < 5; ++round) {
        simulated->setFault(Fault::NeverRead, {});
        const qint64 before = simulated->receivedBytes();
        begin();
        simulated->setFault(Fault::NeverRead, always);
        endpoint.token.set(false); // what is sent from now on goes with the closing
        send(much);
        simulated->send("OKa");
        simulated->setFault(Fault::NeverRead, {});
        end();
        EXPECT_TRUE(eventually([&] { return simulated->connected() == 0; }));
        EXPECT_EQ(simulated->receivedBytes() - before, much.size());
    }
}

TEST_F(OsdConnecting, AWriteMayTakeItsTimeThoughTheFixedPortIsTaken)
{
    netns::limitBuffers();
    const QByteArray much(1024 * 1024, 'm');
    QTcpServer holder;
    holder.listen(QHostAddress::Any, fixedLocalPort()); // unless a former connection has it yet
    begin();
    simulated->setFault(Fault::Drop, always);
    simulated->setFault(Fault::NeverRead, always);
    std::thread late([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        simulated->setFault(Fault::NeverRead, {});
    });
    send(much);
    late.join();
    EXPECT_TRUE(eventually([&] { return simulated->receivedBytes() == much.size(); }));
    EXPECT_TRUE(endpoint.token.isSet());
    EXPECT_EQ(simulated->connected(), 1);
}

TEST_F(OsdConnecting, AcknowledgementsPassWhileAWriteIsStuck)
{
    netns::limitBuffers();
    constexpr int much = 1 << 20;
    begin();
    simulated->setFault(Fault::NeverRead, always);
    connection->take(osdhost::command(QStringLiteral("127.0.0.1"), 'm', QByteArray(much, 'm')));
    simulated->send("OK1");
    EXPECT_TRUE(eventually([] { return osdhost::bytes() == "1"; }));
    simulated->setFault(Fault::Drop, always);
    simulated->setFault(Fault::NeverRead, {});
    EXPECT_TRUE(eventually([&] { return simulated->receivedBytes() == much + 8; }));
}

// A pass that looked at too few bytes would drop an "O" that the rest follows.
TEST(OsdParserLoop, FindsAnAcknowledgementThatIsSplitBehindAStrayByte)
{
    const QByteArray stream = "xOK1";
    for (int cut = 1; cut < stream.size(); ++cut) {
        const std::size_t before = osdhost::size();
        OsdEndpoint endpoint;
        endpoint.token.set(true);
        int pass = 0;
        endpoint.deal([&] {
            ++pass;
            if (pass == 1) {
                endpoint.received.append(stream.left(cut));
            } else if (pass == 4) {
                endpoint.received.append(stream.mid(cut));
            }
            endpoint.token.set(pass < 8);
        });
        EXPECT_EQ(endpoint.received.size(), 0);
        EXPECT_TRUE(eventually([before] { return osdhost::size() == before + 1; })) << cut;
        EXPECT_EQ(osdhost::records().back().arryData, QByteArray("OK1"));
    }
}
