// SPDX-License-Identifier: MIT
#include "biz_osd_cmdswork.h"
#include "core_osd_manage.h"
#include "core_osd_tcpsocket.h"
#include "corefactory.h"
#include "eventually.h"
#include "hostqueue.h"
#include "messagecapture.h"
#include "netns.h"
#include "osdhost.h"
#include "osdsimulator.h"
#include "processstate.h"
#include "shortest.h"
#include "threadrefusal.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace
{

constexpr quint16 fixedPort = 5104;
constexpr Faults::Setting always{1.0, 0, 0};

const QString first = QStringLiteral("127.0.0.1");
const QString second = QStringLiteral("127.0.0.2");

OsdSimulatorOptions at(const QString& address, const Faults& faults = {})
{
    OsdSimulatorOptions options;
    options.address = address;
    options.port = 0;
    options.dataLength = 0;
    options.faults = faults;
    return options;
}

// The shared manager and two endpoints of it.
class OsdWall : public ::testing::Test
{
protected:
    void SetUp() override
    {
        manager = CoreFactory::createOsdCoreObj(ConnOsdTcp);
        ASSERT_TRUE(near.start());
        ASSERT_TRUE(far.start());
    }

    void TearDown() override
    {
        delete CoreFactory::iOsdCore;
        CoreFactory::iOsdCore = nullptr;
    }

    void open(const QString& ip, const OsdSimulator& endpoint)
    {
        const int before = endpoint.accepted();
        manager->openClient(ip, endpoint.port());
        ASSERT_TRUE(eventually([&] { return endpoint.accepted() > before; }));
    }

    void send(const QString& ip, char ch2, const QByteArray& data = {})
    {
        model_OsdParam record = osdhost::command(ip, ch2, data);
        manager->sendDatatoDevice(&record);
    }

    MessageCapture messages{MessageCapture::Kind::Everything};
    ICoreOsdBase* manager = nullptr;
    OsdSimulator near{at(first)};
    OsdSimulator far{at(second)};
};

// What the conformance set asks of every link, as far as it fits: there is no checksum here, and no
// block.
class OsdConformance : public OsdWall
{
protected:
    void connectOnce()
    {
        const int before = near.accepted();
        ASSERT_TRUE(eventually([&] { // a worker that has been stopped may take its time to end
            socket.connectSever(first, near.port());
            return near.accepted() > before;
        }));
    }

    // Has the endpoint send these bytes: so many acknowledgements have come then, and this is left.
    void expect(const QByteArray& sent, std::size_t count, const QByteArray& left)
    {
        near.send(sent);
        EXPECT_TRUE(eventually([&] {
            return osdhost::size() == count && socket.getBuffData(1024) == left;
        })) << sent.constData();
    }

    Core_Osd_TcpSocket socket{nullptr};
};

// The descriptor of this process's socket that has this local and that remote port; -1 if none.
int socketOn(quint16 local, quint16 remote)
{
    for (int descriptor = 3; descriptor < 1024; ++descriptor) {
        sockaddr_in6 own{};
        sockaddr_in6 peer{};
        socklen_t ownLength = sizeof own;
        socklen_t peerLength = sizeof peer;
        if (getsockname(descriptor, reinterpret_cast<sockaddr*>(&own), &ownLength) == 0 &&
            getpeername(descriptor, reinterpret_cast<sockaddr*>(&peer), &peerLength) == 0 &&
            ntohs(own.sin6_port) == local && ntohs(peer.sin6_port) == remote) {
            return descriptor;
        }
    }
    return -1;
}

} // namespace

TEST_F(OsdConformance, SendAndAcknowledgement)
{
    open(first, near);
    open(second, far);
    ASSERT_TRUE(osdhost::settle(first, near, 'a'));
    EXPECT_EQ(far.received(), QByteArray());
    ASSERT_TRUE(osdhost::settle(second, far, 'c'));
    const QByteArray farBefore = far.received();
    const std::size_t before = osdhost::size();
    send(first, 'b');
    send(second, 'c');
    send(first, 'd');
    ASSERT_TRUE(eventually([&] { return osdhost::size() == before + 3; }));
    EXPECT_TRUE(near.received().endsWith(QByteArray::fromHex("62030504070809 0a"
                                                             "64030504070809 0a")));
    EXPECT_EQ(far.received(), farBefore + QByteArray::fromHex("630305040708090a"));
    const auto records = osdhost::records();
    for (std::size_t i = before; i < records.size(); ++i) {
        const model_OsdParam& record = records[i];
        EXPECT_EQ(record.strIP, record.arryData == "OKc" ? second : first);
        EXPECT_EQ(record.ch4, static_cast<char>(0xff));
    }
    EXPECT_EQ(messages.lines(), QStringList());
}

TEST_F(OsdWall, AsksForTheFixedPortAndDoesWithoutIt)
{
    open(first, near);
    ASSERT_EQ(near.peerPorts().front(), fixedPort);
    const int descriptor = socketOn(fixedPort, near.port());
    ASSERT_GE(descriptor, 0);
    int reuse = -1;
    socklen_t length = sizeof reuse;
    ASSERT_EQ(getsockopt(descriptor, SOL_SOCKET, SO_REUSEADDR, &reuse, &length), 0);
    EXPECT_EQ(reuse, 0);
    ASSERT_EQ(getsockopt(descriptor, SOL_SOCKET, SO_REUSEPORT, &reuse, &length), 0);
    EXPECT_EQ(reuse, 0);

    open(second, far);
    EXPECT_NE(far.peerPorts().front(), fixedPort);
    ASSERT_TRUE(osdhost::settle(second, far, 'x'));

    // This side hangs up first, so the port stays taken for a minute.
    manager->closeClient(first);
    ASSERT_TRUE(eventually([&] { return near.connected() == 0; }));
    open(first, near);
    EXPECT_NE(near.peerPorts().back(), fixedPort);
    const std::size_t before = osdhost::size();
    ASSERT_TRUE(eventually([&] {
        send(first, 'y');
        return osdhost::size() > before;
    }));
}

TEST_F(OsdWall, ComparesTheAddressExactly)
{
    open(first, near);
    ASSERT_TRUE(osdhost::settle(first, near, 'a'));
    const QByteArray before = near.received();
    for (const char* const other : {"127.0.0.1 ", " 127.0.0.1", "127.0.0.01", "127.0.0.2", ""}) {
        send(QString::fromLatin1(other), 'n');
    }
    send(first, 'z');
    ASSERT_TRUE(eventually([&] { return near.received().size() >= before.size() + 8; }));
    EXPECT_EQ(near.received(), before + QByteArray::fromHex("7a0305040708090a"));
}

TEST_F(OsdWall, TakesAnAnswerThatIsSplit)
{
    near.setFault(Fault::Split, {1.0, 0, 30});
    open(first, near);
    ASSERT_TRUE(osdhost::settle(first, near, 's'));
    EXPECT_EQ(osdhost::records().front().arryData, "OKs");
}

TEST_F(OsdWall, TakesAnswersInAnyPieces)
{
    struct Step {
        QByteArray sent;
        QByteArray buffered;
        QByteArray taken; // third bytes of the acknowledgements so far
    };
    const Step steps[] = {
        {"OK", "OK", ""},   {"1", "", "1"},    {"O", "O", "1"},   {"K2", "", "12"},
        {"xO", "xO", "12"}, {"K3", "", "123"}, {"O", "O", "123"}, {"KOK", "K", "123O"},
    };
    Core_Osd_TcpSocket socket(nullptr);
    socket.connectSever(first, near.port());
    ASSERT_TRUE(eventually([&] { return near.connected() == 1; }));
    for (const Step& step : steps) {
        near.send(step.sent);
        EXPECT_TRUE(eventually([&] {
            return osdhost::bytes() == step.taken && socket.getBuffData(100) == step.buffered;
        })) << step.sent.constData();
    }
}

TEST_F(OsdConformance, GarbageBefore)
{
    near.setFault(Fault::Garbage, {1.0, 0, 10'000});
    open(first, near);
    ASSERT_TRUE(osdhost::settle(first, near, 'g'));
    EXPECT_EQ(osdhost::records().front().arryData, "OKg");
}

TEST_F(OsdConformance, GarbageBetween)
{
    connectOnce();
    expect("..OK1" + QByteArray(5000, '.') + "OK2O.KOK3.", 3, ".");
    EXPECT_EQ(osdhost::bytes(), "123");
}

TEST_F(OsdConformance, SplitAtEveryByte)
{
    connectOnce();
    const QByteArray stream = "OK1OK2";
    for (int cut = 1; cut < stream.size(); ++cut) {
        const std::size_t before = osdhost::size();
        const int whole = cut / 3;
        expect(stream.left(cut), before + static_cast<std::size_t>(whole),
               stream.mid(whole * 3, cut - whole * 3));
        expect(stream.mid(cut), before + 2, "");
    }
    EXPECT_EQ(osdhost::bytes(), "1111122222");
}

TEST_F(OsdConformance, CloseInTheMiddle)
{
    connectOnce();
    expect("OK1O", 1, "O");
    socket.close();
    ASSERT_TRUE(eventually([&] { return near.connected() == 0; }));
    EXPECT_EQ(socket.getBuffData(1024), "O");
    connectOnce();
    expect("K2", 2, "");
    EXPECT_EQ(osdhost::bytes(), "12");
}

TEST_F(OsdWall, OneBlockedHandOverDelaysNothingElse)
{
    const int threads = processstate::threads() + 4; // two for each endpoint
    open(first, near);
    open(second, far);
    ASSERT_TRUE(osdhost::settle(first, near, 'a'));
    ASSERT_TRUE(osdhost::settle(second, far, 'b'));
    const std::size_t before = osdhost::size();
    {
        const std::lock_guard blocked(biz_Osd_CMDSWork::receiveOsdlock);
        near.send("OK1OK2OK3");
        far.send("OK4OK5");
        // Each of them waits on a thread of its own; none keeps the next one from being taken.
        ASSERT_TRUE(eventually([&] { return processstate::threads() >= threads + 5; }));
        const qint64 answered = near.good();
        send(first, 'c');
        ASSERT_TRUE(eventually([&] { return near.good() == answered + 1; }));
        ASSERT_TRUE(eventually([&] { return processstate::threads() >= threads + 6; }));
    }
    ASSERT_TRUE(eventually([&] { return osdhost::size() == before + 6; }));
    ASSERT_TRUE(eventually([&] { return processstate::threads() <= threads; }));
}

TEST_F(OsdWall, RefusedThreadsLoseNoAcknowledgement)
{
    open(first, near);
    ASSERT_TRUE(osdhost::settle(first, near, 'a'));
    const std::size_t before = osdhost::size();
    const ThreadRefusal refusal;
    const int refused = ThreadRefusal::refused();
    near.send("..OK1.OK2OK3OK");
    ASSERT_TRUE(eventually([&] { return osdhost::size() == before + 3; }));
    EXPECT_GE(ThreadRefusal::refused(), refused + 3);
    EXPECT_EQ(osdhost::bytes().left(3), "123");
}

TEST_F(OsdWall, AWorkerThatIsRefusedStaysStoppedAndTheLogSaysSo)
{
    const QString line = QStringLiteral("OSD endpoint 127.0.0.1, port %1: not connected, no "
                                        "descriptor or thread left")
                             .arg(near.port());
    const int threads = processstate::threads();
    const int descriptors = processstate::descriptors();
    for (int after = 0; after < 2; ++after) { // the parser's or the connection's thread
        {
            const ThreadRefusal refusal(after);
            manager->openClient(first, near.port());
            EXPECT_EQ(hostqueue::countLog(line), 2 * after + 1);
            send(first, 'a');
            manager->closeClient(first);
        }
        {
            const ThreadRefusal refusal(after);
            manager->openClient(first, near.port());
        }
        EXPECT_EQ(hostqueue::countLog(line), 2 * after + 2);
        EXPECT_TRUE(eventually([&] { return processstate::threads() == threads; }));
        EXPECT_EQ(processstate::descriptors(), descriptors);
        EXPECT_EQ(near.accepted(), 0);
        manager->closeClient(first);
    }
    open(first, near);
    ASSERT_TRUE(osdhost::settle(first, near, 'b'));
    EXPECT_EQ(hostqueue::countLog(line), 4);
}

TEST_F(OsdWall, AFloodStallsNobody)
{
    open(first, near);
    open(second, far);
    ASSERT_TRUE(osdhost::settle(first, near, 'a'));
    ASSERT_TRUE(osdhost::settle(second, far, 'b'));
    // A pass of the parser, 3 ms at least, takes 1024 bytes: the end of the flood comes in minutes.
    near.send(QByteArray(64 * 1024 * 1024, 'f') + "OK!");
    const std::size_t before = osdhost::size();
    for (int i = 0; i < 20; ++i) {
        send(second, 'c');
        ASSERT_TRUE(eventually(
            [&] { return osdhost::size() == before + static_cast<std::size_t>(i) + 1; }));
    }
    const int good = near.good();
    send(first, 'd');
    EXPECT_TRUE(eventually([&] { return near.good() > good; }));
    EXPECT_LT(elapsed([&] { manager->closeClient(first); }), 30'000);
    EXPECT_FALSE(osdhost::bytes().contains('!'));
}

TEST_F(OsdConformance, Flood)
{
    open(first, near);
    ASSERT_TRUE(osdhost::settle(first, near, 'a'));
    constexpr int flood = 300; // each takes a pass of the parser and a thread
    near.setFault(Fault::Flood, {0, 1, flood});
    const std::size_t before = osdhost::size();
    send(first, 'b');
    ASSERT_TRUE(eventually([&] { return osdhost::size() == before + flood; }));
    EXPECT_EQ(osdhost::bytes().count('b'), flood);
}

TEST_F(OsdWall, AnEndpointThatNeverReadsCostsItselfOnly)
{
    netns::limitBuffers();
    open(first, near);
    open(second, far);
    ASSERT_TRUE(osdhost::settle(first, near, 'a')); // connected on this side, too
    ASSERT_TRUE(osdhost::settle(second, far, 'b'));
    near.setFault(Fault::NeverRead, always);
    const QByteArray nearBefore = near.received();
    const QByteArray much(1024 * 1024, 'm');
    // The backlog is 12 writes of up to 2 s each: nobody sits it out, nor half of it.
    constexpr int writes = 12;
    constexpr qint64 half = writes * 2000 / 2;
    EXPECT_LT(elapsed([&] {
                  for (int i = 0; i < writes; ++i) {
                      send(first, 'a', much);
                  }
              }),
              half);
    const std::size_t before = osdhost::size();
    EXPECT_LT(elapsed([&] {
                  send(second, 'c');
                  EXPECT_TRUE(eventually([&] { return osdhost::size() == before + 1; }));
              }),
              half);
    const qint64 closing = elapsed([&] { manager->closeClient(first); });
    EXPECT_GE(closing, 3000);
    EXPECT_LT(closing, half);
    near.setFault(Fault::Drop, always);
    near.setFault(Fault::NeverRead, {});
    ASSERT_TRUE(eventually([&] { return near.connected() == 0; }));
    const QByteArray frame =
        QByteArray::fromHex("610305040708") + much + QByteArray::fromHex("090a");
    EXPECT_TRUE((nearBefore + frame.repeated(writes)).startsWith(near.received()));
    EXPECT_GT(near.receivedBytes(), nearBefore.size());
    open(first, near);
    const int good = near.good();
    ASSERT_TRUE(eventually([&] {
        send(first, 'r');
        return near.good() > good;
    }));
}

TEST_F(OsdWall, ASlowEndpointGetsEverythingInOrder)
{
    netns::limitBuffers();
    open(first, near);
    ASSERT_TRUE(osdhost::settle(first, near, 'a'));
    near.setFault(Fault::NeverRead, always);
    QByteArray expected = near.received();
    for (char i = 0; i < 3; ++i) {
        const QByteArray data(400 * 1024, static_cast<char>('0' + i));
        send(first, i, data);
        expected += QByteArray(1, i) + QByteArray::fromHex("0305040708") + data +
                    QByteArray::fromHex("090a");
    }
    ASSERT_FALSE(eventually([&] { return near.receivedBytes() == expected.size(); },
                            std::chrono::milliseconds(100)));
    near.setFault(Fault::Drop, always);
    near.setFault(Fault::NeverRead, {});
    ASSERT_TRUE(eventually([&] { return near.receivedBytes() == expected.size(); }));
    EXPECT_TRUE(near.received() == expected);
}
