// SPDX-License-Identifier: MIT
#include "biz_osd_cmdswork.h"
#include "core_osd_manage.h"
#include "core_osd_tcpsocket.h"
#include "corefactory.h"
#include "eventlog.h"
#include "eventually.h"
#include "icoreosdbase.h"
#include "messagecapture.h"
#include "netns.h"
#include "osdhost.h"
#include "osdsimulator.h"
#include "processstate.h"
#include "shortest.h"
#include "tcplistener.h"

#include <gtest/gtest.h>

#include <QElapsedTimer>
#include <QThread>
#include <QTranslator>

#include <array>
#include <memory>

#include <linux/sockios.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

const QString address = QStringLiteral("127.0.0.1");
constexpr Faults::Setting always{1.0, 0, 0};

constexpr qint64 stopPauseMs = 100;
constexpr qint64 writeMs = 2000;
constexpr qint64 hangUpMs = 3000;
constexpr qint64 threadEndMs = 500;
constexpr qint64 loadedMachineMs = 1500;
constexpr qint64 quickStopMs = stopPauseMs + loadedMachineMs; // waits for nothing but its pause
constexpr qint64 endlessMs = 30'000; // what waits for an endpoint that never reads takes longer

OsdSimulatorOptions endpointOptions()
{
    OsdSimulatorOptions options;
    options.port = 0;
    options.dataLength = 0;
    return options;
}

// A server that lets connections hang: its queue is full and nobody takes them.
class FullServer
{
public:
    FullServer() { EXPECT_EQ(connect(filler, listener.name(), sizeof(sockaddr_in)), 0); }
    ~FullServer() { close(filler); }
    FullServer(const FullServer&) = delete;
    FullServer& operator=(const FullServer&) = delete;

    int port() const { return listener.port(); }

private:
    const TcpListener listener{0};
    int filler = socket(AF_INET, SOCK_STREAM, 0);
};

// A server that closes its connection with commands unread, which is a reset.
class ResettingServer
{
public:
    ResettingServer() = default;
    ~ResettingServer() { hangUp(); }
    ResettingServer(const ResettingServer&) = delete;
    ResettingServer& operator=(const ResettingServer&) = delete;

    int port() const { return listener.port(); }
    void accept() { connection = listener.accept(); }

    /// True if something had come; takes all of it.
    bool takeAll()
    {
        std::array<char, 4096> bytes{};
        bool any = false;
        while (recv(connection, bytes.data(), bytes.size(), MSG_DONTWAIT) > 0) {
            any = true;
        }
        return any;
    }

    /// Acknowledges so many commands of eight bytes; returns when the other side has all of that
    /// and more commands have come.
    void answer(int commands) const
    {
        std::array<char, 8> bytes{};
        for (int i = 0; i < commands; ++i) {
            EXPECT_EQ(recv(connection, bytes.data(), bytes.size(), MSG_WAITALL), 8);
            EXPECT_EQ(::send(connection, "OK1", 3, MSG_NOSIGNAL), 3);
        }
        EXPECT_EQ(recv(connection, bytes.data(), 1, MSG_PEEK), 1);
        for (int unacknowledged = 1; unacknowledged > 0;) {
            ASSERT_EQ(ioctl(connection, SIOCOUTQ, &unacknowledged), 0);
        }
    }

    void hangUp()
    {
        if (connection >= 0) {
            close(connection);
            connection = -1;
        }
    }

private:
    const TcpListener listener{1};
    int connection = -1;
};

// Something of the host's that shares an endpoint's thread. It is made before the thread begins and
// destroyed when it is done, which ThreadSanitizer sees, unlike the lock of Qt's event queue.
class HostCode : public QObject
{
public:
    explicit HostCode(std::function<void()> code) : task(std::move(code)) {}

    void runOn(QThread* thread)
    {
        moveToThread(thread);
        QCoreApplication::postEvent(this, new QEvent(QEvent::User));
    }

    std::atomic<bool> done{false};

private:
    void customEvent(QEvent* /*event*/) override
    {
        task();
        done = true;
    }

    const std::function<void()> task;
};

class OsdLife : public ::testing::Test
{
protected:
    void SetUp() override
    {
        CoreFactory::createOsdCoreObj(ConnOsdTcp);
        ASSERT_TRUE(endpoint.start());
        descriptors = processstate::descriptors();
        threads = processstate::threads();
    }

    void TearDown() override
    {
        EXPECT_TRUE(eventually([&] { return processstate::threads() == threads; }));
        EXPECT_TRUE(eventually([&] { return processstate::descriptors() == descriptors; }));
        EXPECT_EQ(messages.lines(), QStringList());
        delete CoreFactory::iOsdCore;
        CoreFactory::iOsdCore = nullptr;
    }

    void connectAndAnswer(Core_Osd_TcpSocket& socket, char ch2)
    {
        socket.connectSever(address, endpoint.port());
        answer(ch2);
    }

    // The worker before may have been stopped, and take longer to end than a start waits for it.
    void connectAgainAndAnswer(Core_Osd_TcpSocket& socket, char ch2)
    {
        const int accepted = endpoint.accepted();
        ASSERT_TRUE(eventually([&] {
            socket.connectSever(address, endpoint.port());
            return endpoint.accepted() > accepted;
        }));
        answer(ch2);
    }

    void answer(char ch2) { ASSERT_TRUE(osdhost::settle(address, endpoint, ch2)); }

    static void send(char ch2, const QByteArray& data = {})
    {
        model_OsdParam record = osdhost::command(address, ch2, data);
        CoreFactory::iOsdCore->sendDatatoDevice(&record);
    }

    // Connects to an endpoint that reads nothing more, and sends it more than the system buffers.
    void leavePending(Core_Osd_TcpSocket& socket)
    {
        netns::limitBuffers();
        connectAndAnswer(socket, 'a');
        endpoint.setFault(Fault::NeverRead, always);
        send('b', QByteArray(1024 * 1024, 'm'));
    }

    bool ended() const { return processstate::threads() == threads; }

    MessageCapture messages{MessageCapture::Kind::Everything};
    OsdSimulator endpoint{endpointOptions()};
    int threads = 0;
    int descriptors = 0;
};

} // namespace

TEST_F(OsdLife, ConstructedStartsNothing)
{
    auto socket = std::make_unique<Core_Osd_TcpSocket>(nullptr);
    EXPECT_TRUE(ended());
    EXPECT_NE(socket->thread(), QThread::currentThread());
    socket->close();
    socket->sendData("nobody");
    socket->sigConnect();
    socket->sigDisConnect();
    socket->onStarted();
    socket->onConnected();
    socket->onReadyRead();
    socket->onSendDatatoDevice(osdhost::command(address));
    socket->onCloseSocket();
    Q_EMIT socket->closeSocket();
    EXPECT_TRUE(ended());
    const auto destruction = [&socket] {
        if (!socket) {
            socket = std::make_unique<Core_Osd_TcpSocket>(nullptr);
        }
        const qint64 time = elapsed([&socket] { socket.reset(); });
        EXPECT_GE(time, stopPauseMs);
        return time;
    };
    EXPECT_LT(shortest(quickStopMs, destruction), quickStopMs);
}

TEST_F(OsdLife, AParentIsAllowed)
{
    QObject parent;
    auto* const socket = new Core_Osd_TcpSocket(&parent);
    EXPECT_EQ(socket->thread(), QThread::currentThread());
    connectAndAnswer(*socket, 'p');
    socket->close();
    EXPECT_TRUE(eventually([&] { return ended(); }));
}

TEST_F(OsdLife, StopsFromConnected)
{
    Core_Osd_TcpSocket socket(nullptr);
    const auto stop = [&] {
        connectAndAnswer(socket, 'a');
        const qint64 time = elapsed([&] { socket.close(); });
        EXPECT_GE(time, stopPauseMs);
        EXPECT_TRUE(eventually([&] { return ended() && endpoint.connected() == 0; }));
        EXPECT_TRUE(eventually([&] { return processstate::descriptors() == descriptors; }));
        return time;
    };
    constexpr qint64 onePause = 2 * stopPauseMs - 10; // not a nested second one
    for (int i = 0; i < 4; ++i) {
        stop();
    }
    EXPECT_LT(shortest(onePause, stop), onePause);
}

TEST_F(OsdLife, StopsTwice)
{
    Core_Osd_TcpSocket socket(nullptr);
    connectAndAnswer(socket, 'a');
    socket.close();
    const auto stop = [&] { return elapsed([&] { socket.close(); }); };
    EXPECT_LT(shortest(quickStopMs, stop), quickStopMs);
    Q_EMIT socket.closeSocket();
    socket.onCloseSocket();
}

TEST_F(OsdLife, StopsWhileConnecting)
{
    const FullServer full;
    {
        Core_Osd_TcpSocket socket(nullptr);
        const auto stop = [&] { return elapsed([&] { socket.close(); }); };
        const auto stopWhileConnecting = [&] {
            socket.connectSever(address, full.port());
            EXPECT_TRUE(eventually([&] { return processstate::threads() == threads + 2; }));
            const qint64 time = stop();
            EXPECT_LT(shortest(quickStopMs, stop), quickStopMs);
            EXPECT_TRUE(eventually([&] { return ended(); }));
            EXPECT_TRUE(eventually([&] { return processstate::descriptors() == descriptors + 2; }));
            return time;
        };
        stopWhileConnecting();
        EXPECT_LT(shortest(quickStopMs, stopWhileConnecting), quickStopMs);
        // Nothing of the two attempts is left: one record is one frame.
        connectAndAnswer(socket, 'b');
        const QByteArray before = endpoint.received();
        send('c');
        ASSERT_TRUE(eventually([&] { return osdhost::bytes().contains('c'); }));
        send('d');
        ASSERT_TRUE(eventually([&] { return osdhost::bytes().contains('d'); }));
        EXPECT_EQ(endpoint.received(), before + QByteArray::fromHex("630305040708090a") +
                                           QByteArray::fromHex("640305040708090a"));
        socket.connectSever(address, full.port());
    }
}

TEST_F(OsdLife, ARecordDoesNotGoOutWhileConnecting)
{
    const FullServer full;
    Core_Osd_TcpSocket socket(nullptr);
    connectAndAnswer(socket, 'a');
    endpoint.hangUp(false);
    ASSERT_TRUE(eventually([&] { return ended(); }));
    // Being connected ended with the connection, however it ended.
    socket.connectSever(address, full.port());
    ASSERT_TRUE(eventually([&] { return processstate::threads() == threads + 2; }));
    const auto sending = [&] { return elapsed([&] { socket.sendData("not now"); }); };
    EXPECT_LT(shortest(writeMs / 2, sending), writeMs / 2);
    send('n');
    socket.close();
    ASSERT_TRUE(eventually([&] { return ended(); }));
    connectAndAnswer(socket, 'b');
    EXPECT_FALSE(endpoint.received().contains('n'));
}

TEST_F(OsdLife, ARefusedConnectionLeavesNothing)
{
    endpoint.setFault(Fault::Refuse, always);
    Core_Osd_TcpSocket socket(nullptr);
    for (int i = 0; i < 5; ++i) {
        socket.connectSever(address, endpoint.port());
        ASSERT_TRUE(eventually([&] { return ended(); }));
        EXPECT_TRUE(eventually([&] { return processstate::descriptors() == descriptors; }));
    }
    const auto stop = [&] { return elapsed([&] { socket.close(); }); };
    EXPECT_LT(shortest(quickStopMs, stop), quickStopMs);
    endpoint.setFaults({});
    connectAndAnswer(socket, 'a');
}

TEST_F(OsdLife, AnAddressThatIsNoneIsRefused)
{
    Core_Osd_TcpSocket socket(nullptr);
    for (const char* const text : {"", "no address", "127.0.0.1 x", "300.1.1.1"}) {
        socket.connectSever(QString::fromLatin1(text), endpoint.port());
        ASSERT_TRUE(eventually([&] { return ended(); })) << text;
    }
    EXPECT_EQ(endpoint.accepted(), 0);
}

TEST_F(OsdLife, GoesAwayRightAfterTheStart)
{
    for (int i = 0; i < 10; ++i) {
        Core_Osd_TcpSocket socket(nullptr);
        socket.connectSever(address, endpoint.port());
        if (i % 2 == 0) {
            socket.close();
            ASSERT_TRUE(eventually([&] { return ended(); })); // a pass may have begun before
            socket.appendBuffData("OK1");
        }
    }
    EXPECT_TRUE(eventually([&] { return ended() && endpoint.connected() == 0; }));
    EXPECT_EQ(osdhost::size(), 0U); // no parser came to life behind the stop
}

TEST_F(OsdLife, GoesAwayAtTheMomentOfARemoteClose)
{
    int i = 0;
    const auto destruction = [&] {
        auto socket = std::make_unique<Core_Osd_TcpSocket>(nullptr);
        const int accepted = endpoint.accepted();
        socket->connectSever(address, endpoint.port());
        EXPECT_TRUE(eventually([&] { return endpoint.accepted() == accepted + 1; }));
        // The pause of the stop is 100 ms: hang up at its beginning, in it, and at its end.
        std::thread peer([this, i] {
            std::this_thread::sleep_for(
                std::chrono::microseconds(i < 4 ? i * 100 : 99'000 + i * 200));
            endpoint.hangUp(i % 2 == 0);
        });
        const qint64 time = elapsed([&] { socket.reset(); });
        peer.join();
        return time;
    };
    for (; i < 12; ++i) {
        EXPECT_LT(shortest(quickStopMs, destruction), quickStopMs) << i;
    }
}

TEST_F(OsdLife, GoesAwayDuringAWrite)
{
    netns::limitBuffers(); // what they hold is read in commands of eight bytes in the end
    auto socket = std::make_unique<Core_Osd_TcpSocket>(nullptr);
    connectAndAnswer(*socket, 'a');
    endpoint.setFault(Fault::NeverRead, always);
    const QByteArray much(1024 * 1024, 'm'); // more than the system buffers
    const auto write = [&] {
        const qint64 time = elapsed([&] { socket->sendData(much); });
        EXPECT_GE(time, writeMs);
        return time;
    };
    EXPECT_LT(shortest(writeMs + loadedMachineMs, write), writeMs + loadedMachineMs);
    send('b', much);
    send('c', much);
    const qint64 time = elapsed([&] { socket.reset(); });
    EXPECT_GE(time, stopPauseMs + hangUpMs);
    EXPECT_LT(time, endlessMs);
    endpoint.setFaults({}); // the lingering close waits for it
    EXPECT_TRUE(eventually([&] { return ended(); }));
    EXPECT_TRUE(eventually([&] { return endpoint.connected() == 0; }));
}

TEST_F(OsdLife, WhatIsPendingIsStillSentByAStop)
{
    netns::limitBuffers(); // little is left to be read within what the stop waits
    OsdSimulatorOptions options;
    options.port = 0;
    OsdSimulator slow(options);
    ASSERT_TRUE(slow.start());
    {
        Core_Osd_TcpSocket socket(nullptr);
        socket.connectSever(address, slow.port());
        ASSERT_TRUE(eventually([&] {
            send('a');
            return slow.receivedBytes() > 0;
        }));
        send('z');
        const QByteArray last = QByteArray::fromHex("7a0305040708090a");
        ASSERT_TRUE(eventually([&] { return slow.received().endsWith(last); }));
        slow.setFault(Fault::NeverRead, always);
        const QByteArray before = slow.received();
        const QByteArray much(1024 * 1024, 'm'); // more than the system buffers
        send('b', much);
        send('c', much);
        // It begins to read when the stop's pause is over and the worker waits for it.
        // It does not answer: what it had sent and nobody read would make the hang-up a reset.
        std::thread peer([&slow] {
            std::this_thread::sleep_for(std::chrono::milliseconds(2 * stopPauseMs));
            slow.setFault(Fault::Drop, always);
            slow.setFault(Fault::NeverRead, {});
        });
        EXPECT_LT(elapsed([&] { socket.close(); }), endlessMs);
        peer.join();
        EXPECT_TRUE(eventually([&] { return slow.connected() == 0; }));
        EXPECT_EQ(slow.receivedBytes(), before.size() + 2 * (much.size() + 8));
        EXPECT_TRUE(slow.received() == before + QByteArray::fromHex("620305040708") + much +
                                           QByteArray::fromHex("090a630305040708") + much +
                                           QByteArray::fromHex("090a"));
    }
    // All that is left goes with the endpoint.
    EXPECT_TRUE(eventually([&] { return processstate::threads() == threads + 1; }));
}

TEST_F(OsdLife, RecordsBeforeAStopAreStillSent)
{
    Core_Osd_TcpSocket socket(nullptr);
    connectAndAnswer(socket, 'a');
    const QByteArray before = endpoint.received();
    QByteArray expected = before;
    for (int i = 0; i < 500; ++i) {
        send(static_cast<char>(i));
        expected += QByteArray(1, static_cast<char>(i)) + QByteArray::fromHex("0305040708090a");
    }
    socket.close();
    EXPECT_TRUE(eventually([&] { return endpoint.connected() == 0; }));
    EXPECT_EQ(endpoint.received(), expected);
}

TEST_F(OsdLife, ReceivedBytesOutliveAStop)
{
    Core_Osd_TcpSocket socket(nullptr);
    connectAndAnswer(socket, 'a');
    endpoint.send("OK");
    ASSERT_TRUE(eventually([&] { return socket.getBuffData(10) == "OK"; }));
    socket.close();
    EXPECT_EQ(socket.getBuffData(10), "OK");
    ASSERT_TRUE(eventually([&] { return ended() && endpoint.connected() == 0; }));
    socket.connectSever(address, endpoint.port());
    ASSERT_TRUE(eventually([&] { return endpoint.connected() == 1; }));
    endpoint.send("z");
    EXPECT_TRUE(eventually([] { return osdhost::bytes().contains('z'); }));
}

TEST_F(OsdLife, AnAcknowledgementRightBeforeAHangUpCounts)
{
    Core_Osd_TcpSocket socket(nullptr);
    for (char i = 0; i < 10; ++i) {
        socket.connectSever(address, endpoint.port());
        ASSERT_TRUE(eventually([&] { return endpoint.connected() == 1; }));
        endpoint.send(QByteArray("OK") + static_cast<char>('A' + i));
        endpoint.hangUp(false);
        ASSERT_TRUE(eventually([&] { return ended(); }));
        // Taken by the parser's last pass, or else by the next connection's first one.
        socket.connectSever(address, endpoint.port());
        EXPECT_TRUE(
            eventually([&] { return osdhost::bytes().contains(static_cast<char>('A' + i)); }));
        socket.close();
        ASSERT_TRUE(eventually([&] { return ended() && endpoint.connected() == 0; }));
    }
}

TEST_F(OsdLife, ConnectsAgainRightAfterALoss)
{
    Core_Osd_TcpSocket socket(nullptr);
    for (char i = 0; i < 10; ++i) {
        connectAndAnswer(socket, static_cast<char>('a' + i));
        const int accepted = endpoint.accepted();
        endpoint.hangUp(i % 2 == 0);
        ASSERT_TRUE(eventually([&] {
            socket.connectSever(address, endpoint.port());
            return endpoint.accepted() == accepted + 1;
        }));
    }
    const QByteArray before = endpoint.received();
    answer('z');
    EXPECT_TRUE(endpoint.received().mid(before.size()).startsWith("z"));
}

TEST_F(OsdLife, StartingTwiceConnectsOnceAndTakesTheNewAddress)
{
    Core_Osd_TcpSocket socket(nullptr);
    connectAndAnswer(socket, 'a');
    socket.connectSever(QStringLiteral("127.0.0.7"), 1);
    const QByteArray before = endpoint.received();
    send('n');
    model_OsdParam record = osdhost::command(QStringLiteral("127.0.0.7"), 'y');
    CoreFactory::iOsdCore->sendDatatoDevice(&record);
    ASSERT_TRUE(eventually([] { return osdhost::bytes().contains('y'); }));
    EXPECT_EQ(endpoint.received(), before + QByteArray::fromHex("790305040708090a"));
    EXPECT_EQ(osdhost::records().back().strIP, QStringLiteral("127.0.0.7"));
    EXPECT_EQ(endpoint.accepted(), 1);
}

TEST_F(OsdLife, EmittingCloseSocketHangsUpAndReturns)
{
    Core_Osd_TcpSocket socket(nullptr);
    connectAndAnswer(socket, 'a');
    Q_EMIT socket.closeSocket();
    EXPECT_TRUE(eventually([&] { return endpoint.connected() == 0; }));
    // The thread's event loop goes on.
    EXPECT_TRUE(eventually([&] { return processstate::descriptors() == descriptors + 1; }));
    socket.sendData("nobody");
    socket.onStarted();
    answer('b');
}

TEST_F(OsdLife, EveryStopEmitsCloseSocket)
{
    Core_Osd_TcpSocket socket(nullptr);
    std::atomic<int> emitted{0};
    QObject::connect(&socket, &Core_Osd_TcpSocket::closeSocket, [&emitted] { ++emitted; });
    socket.close(); // never started
    EXPECT_EQ(emitted, 1);
    connectAndAnswer(socket, 'a');
    socket.close();
    EXPECT_EQ(emitted, 2);
    ASSERT_TRUE(eventually([&] { return ended(); }));
    connectAndAnswer(socket, 'b');
    endpoint.hangUp(false);
    EXPECT_TRUE(eventually([&] { return emitted == 3 && ended(); }));
    socket.connectSever(address, 1); // refused
    EXPECT_TRUE(eventually([&] { return emitted == 4 && ended(); }));
    connectAndAnswer(socket, 'c');
    socket.onError(QAbstractSocket::NetworkError);
    EXPECT_EQ(emitted, 5);
    EXPECT_TRUE(eventually([&] { return ended(); }));
    EXPECT_EQ(emitted, 5); // the loss before the restart has been told
}

TEST_F(OsdLife, AThreadThatTheHostEndsEndsTheConnection)
{
    Core_Osd_TcpSocket socket(nullptr);
    connectAndAnswer(socket, 'a');
    socket.thread()->quit();
    EXPECT_TRUE(eventually([&] { return ended() && endpoint.connected() == 0; }));
    connectAndAnswer(socket, 'b');
}

TEST_F(OsdLife, ALossIsToldOnTheWorkerAfterThePause)
{
    Core_Osd_TcpSocket socket(nullptr);
    std::atomic<int> emitted{0};
    std::atomic<bool> onWorker{true};
    std::atomic<qint64> at{0};
    QElapsedTimer clock;
    clock.start();
    QObject::connect(
        &socket, &Core_Osd_TcpSocket::closeSocket, &socket,
        [&] {
            at = clock.elapsed();
            onWorker = onWorker && QThread::currentThread() == socket.thread();
            ++emitted;
        },
        Qt::DirectConnection);
    for (int i = 1; i <= 4; ++i) {
        connectAndAnswer(socket, static_cast<char>('a' + i));
        const qint64 before = clock.elapsed();
        endpoint.hangUp(i % 2 == 0);
        while (emitted < i) { // without the event loop
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        EXPECT_GE(at - before, stopPauseMs);
        EXPECT_TRUE(onWorker);
        // A loss that has been told is over: what is started next is none of it.
        connectAgainAndAnswer(socket, 'n');
        EXPECT_EQ(endpoint.connected(), 1);
        socket.close(); // told here
        ASSERT_TRUE(eventually([&] { return ended(); }));
        onWorker = true;
        emitted = i;
    }
    const int port = endpoint.port();
    endpoint.setFault(Fault::Refuse, always);
    socket.connectSever(address, port);
    while (emitted < 5) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_TRUE(onWorker);
}

TEST_F(OsdLife, ADestructorWaitsForALossThatIsBeingTold)
{
    auto socket = std::make_unique<Core_Osd_TcpSocket>(nullptr);
    std::atomic<bool> inside{false};
    std::atomic<bool> blocks{true};
    std::atomic<bool> gone{false};
    std::atomic<bool> goneWhileTold{false};
    QObject::connect(
        socket.get(), &Core_Osd_TcpSocket::closeSocket, socket.get(),
        [&, worker = socket->thread()] {
            if (QThread::currentThread() == worker) {
                inside = true;
                while (blocks) {
                    std::this_thread::sleep_for(std::chrono::milliseconds(1));
                }
                goneWhileTold = gone.load();
            }
        },
        Qt::DirectConnection);
    connectAndAnswer(*socket, 'a');
    endpoint.hangUp(false);
    ASSERT_TRUE(eventually([&] { return inside.load(); }));
    std::thread destruction([&] {
        socket.reset();
        gone = true;
    });
    EXPECT_FALSE(eventually([&] { return gone.load(); },
                            std::chrono::milliseconds(stopPauseMs + 2 * threadEndMs)));
    blocks = false;
    destruction.join();
    EXPECT_FALSE(goneWhileTold);
}

TEST_F(OsdLife, ASlotThatHearsOfALossMayDestroyTheSocket)
{
    auto* const socket = new Core_Osd_TcpSocket(nullptr);
    std::atomic<bool> destroyed{false};
    bool told = false;
    QObject::connect(
        socket, &Core_Osd_TcpSocket::closeSocket, socket,
        [&] {
            if (!told) {
                told = true;
                delete socket;
                destroyed = true;
            }
        },
        Qt::DirectConnection);
    connectAndAnswer(*socket, 'a');
    endpoint.hangUp(false);
    EXPECT_TRUE(eventually([&] { return destroyed.load(); }));
}

TEST_F(OsdLife, WhatWasPendingIsNotSentOnTheNextConnection)
{
    Core_Osd_TcpSocket socket(nullptr);
    leavePending(socket);
    send('p');
    endpoint.hangUp(true);
    EXPECT_TRUE(eventually([&] { return ended(); }));
    endpoint.setFaults({});
    const QByteArray before = endpoint.received();
    connectAgainAndAnswer(socket, 'c');
    EXPECT_FALSE(endpoint.received().mid(before.size()).contains('p'));
}

TEST_F(OsdLife, WhoIsDestroyedBehindALossIsToldNothing)
{
    auto* const socket = new Core_Osd_TcpSocket(nullptr);
    const auto log = std::make_shared<EventLog>();
    socket->addObserver(log);
    HostCode hostCode([&] {
        endpoint.hangUp(false);
        EXPECT_TRUE(log->has(1, LinkEvent::Kind::Lost));
        delete socket; // does not wait for the thread that it is on
    });
    connectAndAnswer(*socket, 'a');
    hostCode.runOn(socket->thread());
    EXPECT_TRUE(eventually([&] { return hostCode.done.load(); }));
    EXPECT_TRUE(eventually([&] { return ended(); }));
}

TEST_F(OsdLife, SlotsOutOfTurnDoNoHarm)
{
    Core_Osd_TcpSocket socket(nullptr);
    const auto callAll = [&socket] {
        socket.onConnected();
        socket.onReadyRead();
        socket.onSendDatatoDevice(osdhost::command(address));
        socket.sendData("");
        socket.sigDisConnect();
        socket.onConnected();
        socket.sigConnect();
    };
    connectAndAnswer(socket, 'a');
    callAll();
    ASSERT_TRUE(eventually([] { return osdhost::bytes().contains(2); })); // what callAll sends
    socket.onCloseSocket(); // runs on, without a connection
    ASSERT_TRUE(eventually([&] { return endpoint.connected() == 0; }));
    callAll();
    socket.sendData("nobody");
    socket.onCloseSocket();
    socket.onStarted();
    answer('b');
    const FullServer full;
    socket.close();
    socket.connectSever(address, full.port());
    callAll();
    socket.close();
    callAll();
    EXPECT_FALSE(endpoint.received().contains("nobody"));
}

TEST_F(OsdLife, BrokenSignalsKeepTheConnectionFromBeingClosed)
{
    Core_Osd_TcpSocket socket(nullptr);
    connectAndAnswer(socket, 'a');
    const int accepted = endpoint.accepted();
    socket.sigDisConnect();
    Q_EMIT socket.closeSocket();
    socket.sigConnect();
    answer('b');
    EXPECT_EQ(endpoint.accepted(), accepted);
    Q_EMIT socket.closeSocket();
    EXPECT_TRUE(eventually([&] { return endpoint.connected() == 0; }));
}

TEST_F(OsdLife, AStartMakesTheSignalsAnew)
{
    Core_Osd_TcpSocket socket(nullptr);
    connectAndAnswer(socket, 'a');
    socket.sigDisConnect();
    socket.onStarted();
    answer('b');
}

TEST_F(OsdLife, OnlyTheLastSharedManagerIsHeard)
{
    ICoreOsdBase* const first = CoreFactory::iOsdCore;
    core_Osd_Manage last;
    Core_Osd_TcpSocket socket(nullptr);
    connectAndAnswer(socket, 'a');
    CoreFactory::iOsdCore = &last;
    socket.sigConnect();
    model_OsdParam record = osdhost::command(address, 'n');
    first->sendDatatoDevice(&record);
    answer('b');
    EXPECT_FALSE(endpoint.received().contains('n'));
    CoreFactory::iOsdCore = first;
}

// An observer that takes its time keeps the parser from looking at the socket.
TEST_F(OsdLife, CallersDoNotNeedTheParser)
{
    class Blocking : public EventLog
    {
    public:
        void onEvent(const LinkEvent& event) override
        {
            EventLog::onEvent(event);
            while (blocks && event.kind == Kind::Received) {
                isInside = true;
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        }

        std::atomic<bool> blocks{false};
        std::atomic<bool> isInside{false};
    };
    const auto observer = std::make_shared<Blocking>();
    Core_Osd_TcpSocket socket(nullptr);
    socket.addObserver(observer);
    connectAndAnswer(socket, 'a');
    observer->blocks = true;
    endpoint.setFault(Fault::Drop, always);
    endpoint.send("x");
    ASSERT_TRUE(eventually([&] { return observer->isInside.load(); }));
    endpoint.send("yz");
    EXPECT_TRUE(eventually([&] {
        socket.onReadyRead();
        return socket.getBuffData(4) == "xyz";
    }));
    send('b');
    EXPECT_TRUE(eventually([&] { return endpoint.received().contains('b'); }));
    std::thread second([&] { socket.td_dealDataFunc(); });
    endpoint.send("w");
    EXPECT_TRUE(eventually([&] { return socket.getBuffData(4).endsWith('w'); }));
    observer->blocks = false;
    socket.close();
    second.join();
}

TEST_F(OsdLife, ALookDoesNotWait)
{
    Core_Osd_TcpSocket socket(nullptr);
    connectAndAnswer(socket, 'a');
    const auto look = [&] {
        return elapsed([&] {
            for (int i = 0; i < 50; ++i) {
                socket.onReadyRead();
            }
        });
    };
    EXPECT_LT(shortest(500, look), 500); // 20 ms each if it waited
}

TEST_F(OsdLife, ACloseWaitsForTheThread)
{
    Core_Osd_TcpSocket socket(nullptr);
    for (int i = 0; i < 10; ++i) {
        connectAgainAndAnswer(socket, 'a');
        const qint64 time = elapsed([&] { socket.close(); });
        EXPECT_TRUE(socket.thread()->isFinished() || time >= stopPauseMs + threadEndMs);
    }
}

TEST_F(OsdLife, AnErrorDoesNotWaitForWhatIsPending)
{
    Core_Osd_TcpSocket socket(nullptr);
    leavePending(socket);
    EXPECT_LT(elapsed([&] { socket.onError(QAbstractSocket::NetworkError); }), hangUpMs);
    endpoint.setFaults({});
    EXPECT_TRUE(eventually([&] { return ended(); }));
    EXPECT_TRUE(eventually([&] { return endpoint.connected() == 0; }));
}

// With the signals broken nothing but the host's call tells that a connection is there.
TEST_F(OsdLife, AConnectionThatTheHostReportsTakesCommands)
{
    Core_Osd_TcpSocket socket(nullptr);
    connectAndAnswer(socket, 'a');
    constexpr int connections = 10;
    for (int i = 0; i < connections; ++i) {
        const int accepted = endpoint.accepted();
        socket.onStarted();
        socket.sigDisConnect();
        ASSERT_TRUE(eventually([&] { return endpoint.accepted() == accepted + 1; }));
        socket.onConnected();
        socket.sendData("c");
    }
    EXPECT_TRUE(eventually([&] { return endpoint.received().count('c') == connections; }));
}

TEST_F(OsdLife, TheFirstAddressIsTranslated)
{
    class Translator : public QTranslator
    {
    public:
        QString translate(const char* context, const char* text, const char* /*disambiguation*/,
                          int /*n*/) const override
        {
            return qstrcmp(context, "Core_Osd_TcpSocket") == 0 && qstrcmp(text, "127.0.0.1") == 0
                       ? QStringLiteral("127.0.0.9")
                       : QString();
        }
        bool isEmpty() const override { return false; }
    } translator;
    QCoreApplication::installTranslator(&translator);
    Core_Osd_TcpSocket socket(nullptr);
    QCoreApplication::removeTranslator(&translator);
    const auto log = std::make_shared<EventLog>();
    socket.addObserver(log);
    socket.appendBuffData("OKt");
    std::thread parser([&socket] { socket.td_dealDataFunc(); });
    EXPECT_TRUE(log->has(1, LinkEvent::Kind::Reply));
    EXPECT_EQ(osdhost::records().back().strIP, QStringLiteral("127.0.0.9"));
    EXPECT_EQ(log->all(LinkEvent::Kind::Reply).front().event.port, 10001);
    socket.close();
    parser.join();
}

TEST_F(OsdLife, AFloodBeforeAHangUpIsTakenWhole)
{
    const QByteArray flood = QByteArray("OKf").repeated(500000);
    Core_Osd_TcpSocket socket(nullptr);
    connectAndAnswer(socket, 'a');
    const std::size_t before = osdhost::size();
    endpoint.send(flood);
    endpoint.hangUp(false);
    ASSERT_TRUE(eventually([&] { return ended(); }));
    qsizetype kept = 0;
    for (qsizetype taken = -1; taken != 0; kept += taken) {
        taken = socket.takeBuffData(0xffff).size();
    }
    EXPECT_EQ(kept + 3 * static_cast<qsizetype>(osdhost::size() - before), flood.size());
}

TEST_F(OsdLife, WhatWasAnsweredBeforeAResetCounts)
{
    for (int round = 0; round < 20; ++round) {
        const std::size_t before = osdhost::size();
        ResettingServer server;
        Core_Osd_TcpSocket socket(nullptr);
        socket.connectSever(address, server.port());
        server.accept();
        ASSERT_TRUE(eventually([&] {
            send('a');
            return server.takeAll();
        }));
        std::thread peer([&server, round] {
            server.answer(round % 2 == 0 ? 1 : 5);
            server.hangUp();
        });
        for (int i = 0; i < 40; ++i) {
            send('b');
        }
        peer.join();
        EXPECT_TRUE(eventually([&] { return ended(); }));
        EXPECT_EQ(static_cast<int>(osdhost::size() - before) +
                      socket.getBuffData(1024).count("OK1"),
                  round % 2 == 0 ? 1 : 5)
            << round;
    }
}

TEST_F(OsdLife, AReconnectDuringTheDestructionLeavesNoThread)
{
    for (int i = 0; i < 5; ++i) {
        auto* const socket = new Core_Osd_TcpSocket(nullptr);
        connectAndAnswer(*socket, 'a');
        endpoint.hangUp(false);
        ASSERT_TRUE(eventually([this] { return ended(); }));
        bool reconnected = false;
        QObject::connect(
            socket, &Core_Osd_TcpSocket::closeSocket, socket,
            [&] {
                connectAndAnswer(*socket, 'b');
                reconnected = true;
            },
            Qt::DirectConnection);
        delete socket;
        EXPECT_TRUE(reconnected);
        send('z'); // its connection may still be there, and must not take it
    }
    EXPECT_TRUE(eventually([this] { return ended(); }));
    EXPECT_FALSE(endpoint.received().contains('z'));
}

// The system has the frame and the endpoint takes nothing: there is nothing to wait for.
TEST_F(OsdLife, AStopDoesNotWaitForAnEndpointThatTakesNothing)
{
    netns::limitReceiveBuffers();
    const QByteArray much(512 * 1024, 'm');
    Core_Osd_TcpSocket socket(nullptr);
    const auto stop = [&] {
        endpoint.setFaults({});
        connectAndAnswer(socket, 'a');
        const qint64 before = endpoint.receivedBytes();
        endpoint.setFault(Fault::NeverRead, always);
        endpoint.setFault(Fault::Drop, always); // an answer to a closed connection resets it
        send('b', much);
        socket.sendData(""); // behind the record
        const qint64 time = elapsed([&] { socket.close(); });
        endpoint.setFault(Fault::NeverRead, {});
        EXPECT_TRUE(
            eventually([&] { return endpoint.receivedBytes() == before + much.size() + 8; }));
        EXPECT_TRUE(eventually([&] { return ended() && endpoint.connected() == 0; }));
        return time;
    };
    EXPECT_LT(shortest(hangUpMs / 2, stop), hangUpMs / 2);
}

TEST_F(OsdLife, ALossSlotStopsFromAnyThread)
{
    Core_Osd_TcpSocket socket(nullptr);
    connectAndAnswer(socket, 'a');
    socket.onError(QAbstractSocket::NetworkError);
    EXPECT_TRUE(eventually([&] { return ended(); }));
    connectAndAnswer(socket, 'b');
    QMetaObject::invokeMethod(&socket, "onDisConnected", Qt::QueuedConnection); // on the worker
    EXPECT_TRUE(eventually([&] { return ended(); }));
}

TEST_F(OsdLife, SignalsCanBeBrokenAndMadeAgain)
{
    Core_Osd_TcpSocket socket(nullptr);
    connectAndAnswer(socket, 'a');
    socket.sigDisConnect();
    send('n');
    socket.sigConnect();
    socket.sigConnect();
    const QByteArray before = endpoint.received();
    send('b');
    answer('c');
    EXPECT_TRUE(endpoint.received().startsWith(before + 'b'));
    EXPECT_EQ(endpoint.received().count('b'), 1);
    EXPECT_FALSE(endpoint.received().contains('n'));
}

TEST_F(OsdLife, AThreadThatDoesNotEndIsNeitherWaitedForNorDestroyed)
{
    const auto time = shortest(3000, [&] {
        auto socket = std::make_unique<Core_Osd_TcpSocket>(nullptr);
        std::atomic<bool> blocks{true};
        std::atomic<bool> isInside{false};
        HostCode hostCode([&] { // keeps the thread for itself
            isInside = true;
            while (blocks) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        });
        connectAndAnswer(*socket, 'a');
        hostCode.runOn(socket->thread());
        EXPECT_TRUE(eventually([&] { return isInside.load(); }));
        const double before = processstate::cpuSeconds();
        const qint64 closing = elapsed([&] { socket.reset(); });
        EXPECT_LT(processstate::cpuSeconds() - before, 0.3);
        EXPECT_FALSE(ended());
        blocks = false;
        EXPECT_TRUE(eventually([&] { return hostCode.done && ended(); }));
        return closing;
    });
    EXPECT_LT(time, 3000); // 600 ms
    EXPECT_TRUE(eventually([&] { return endpoint.connected() == 0; }));
}
