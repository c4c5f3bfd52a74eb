// SPDX-License-Identifier: MIT
// Many endpoints at once, and what they may cost.
#include "biz_osd_cmdswork.h"
#include "core_osd_manage.h"
#include "corefactory.h"
#include "descriptorlimit.h"
#include "eventually.h"
#include "hostqueue.h"
#include "netns.h"
#include "osdhost.h"
#include "osdsimulator.h"
#include "processstate.h"
#include "shortest.h"
#include "tcplistener.h"

#include <gtest/gtest.h>

#include <QProcess>

#include <algorithm>
#include <array>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <poll.h>

namespace
{

QString ipOf(int endpoint)
{
    return QStringLiteral("127.1.%1.%2").arg(endpoint / 200).arg(endpoint % 200 + 1);
}

void send(const QString& ip, char ch2, const QByteArray& data = {})
{
    model_OsdParam record = osdhost::command(ip, ch2, data);
    CoreFactory::iOsdCore->sendDatatoDevice(&record);
}

// This process's TCP sockets that are connected to this port.
int connectedTo(int port)
{
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        sockaddr_in peer{};
        socklen_t length = sizeof peer;
        if (getpeername(std::stoi(entry.path().filename()), reinterpret_cast<sockaddr*>(&peer),
                        &length) == 0 &&
            ntohs(peer.sin_port) == port) {
            ++count;
        }
    }
    return count;
}

class OsdWalls : public ::testing::Test
{
protected:
    void SetUp() override { CoreFactory::createOsdCoreObj(ConnOsdTcp); }

    void TearDown() override { destroy(); }

    static void destroy()
    {
        delete CoreFactory::iOsdCore;
        CoreFactory::iOsdCore = nullptr;
    }

    static qsizetype unconnectedInLog(int endpoints, int port)
    {
        qsizetype lines = 0;
        for (int i = 0; i < endpoints; ++i) {
            lines += hostqueue::countLog(QStringLiteral("OSD endpoint %1, port %2: not connected, "
                                                        "no descriptor or thread left")
                                             .arg(ipOf(i))
                                             .arg(port));
        }
        return lines;
    }
};

} // namespace

TEST_F(OsdWalls, FiveHundredEndpointsAreNotTooManyForTheUsualLimit)
{
    constexpr int count = 500;
    const TcpListener listener(count + 100);
    const DescriptorLimit limit(1024);
    const int before = processstate::descriptors();
    for (int i = 0; i < count; ++i) {
        CoreFactory::iOsdCore->openClient(ipOf(i), listener.port());
    }
    EXPECT_TRUE(eventually([&] { return connectedTo(listener.port()) == count; }))
        << connectedTo(listener.port());
    EXPECT_EQ(processstate::descriptors(), before + 2 * count);
    _exit(HasFailure() ? 1 : 0); // closing takes 100 ms each
}

TEST_F(OsdWalls, WithoutDescriptorsEndpointsStayUnconnectedAndTheLogSaysSo)
{
    constexpr int count = 60;
    const TcpListener listener(count);
    int connected = 0;
    {
        const DescriptorLimit limit(processstate::descriptors() + 40);
        for (int i = 0; i < count; ++i) {
            CoreFactory::iOsdCore->openClient(ipOf(i), listener.port());
        }
        ASSERT_TRUE(eventually([&] {
            connected = connectedTo(listener.port());
            return connected + unconnectedInLog(count, listener.port()) == count;
        }));
        EXPECT_GE(connected, 15);
        EXPECT_LE(connected, 20);
    }
    // The entries of the others are there, so they have to be closed before they are opened.
    for (int i = count - 5; i < count; ++i) {
        CoreFactory::iOsdCore->closeClient(ipOf(i));
        CoreFactory::iOsdCore->openClient(ipOf(i), listener.port());
    }
    EXPECT_TRUE(eventually([&] { return connectedTo(listener.port()) == connected + 5; }));
}

// A network that takes nothing any more and tells nobody.
TEST_F(OsdWalls, ADarkWallClosesAtOnceAndIsDeliveredWhenTheNetworkIsBack)
{
    if (!netns::isolated()) {
        GTEST_SKIP() << "the right to make a network namespace is missing";
    }
    constexpr int count = 40; // lingering ends after a minute
    const TcpListener listener(count);
    const int before = processstate::descriptors();
    for (int i = 0; i < count; ++i) {
        CoreFactory::iOsdCore->openClient(ipOf(i), listener.port());
    }
    std::vector<int> peers(count);
    for (int& peer : peers) {
        peer = listener.accept();
        ASSERT_GE(peer, 0);
    }
    const auto waiting = [](int peer) {
        std::array<char, 64> bytes{};
        return recv(peer, bytes.data(), bytes.size(), MSG_PEEK | MSG_DONTWAIT);
    };
    for (int i = 0; i < count; ++i) { // until each is connected on this side, too
        ASSERT_TRUE(eventually([&] {
            send(ipOf(i), 'a');
            return std::count_if(peers.begin(), peers.end(),
                                 [&](int peer) { return waiting(peer) > 0; }) == i + 1;
        }));
    }
    std::array<char, 1024> bytes{};
    for (const int peer : peers) {
        while (recv(peer, bytes.data(), bytes.size(), MSG_DONTWAIT) > 0) {
        }
    }
    ASSERT_TRUE(netns::run("ip link set lo down"));
    for (int i = 0; i < count; ++i) {
        send(ipOf(i), 'z');
    }
    // 100 ms each, and what a busy machine adds; in vain it would be 3 s each.
    EXPECT_LT(elapsed(destroy), 1000 * count);
    EXPECT_GE(processstate::descriptors(), before + 2 * count); // the peers' and the lingering
    ASSERT_TRUE(netns::run("ip link set lo up"));
    // Late answers do not reset the connection: everything is there, then a hang-up.
    const QByteArray expected = QByteArray::fromHex("7a0305040708090a");
    for (const int peer : peers) {
        QByteArray received;
        ASSERT_TRUE(eventually([&] {
            const ssize_t size = recv(peer, bytes.data(), 1, MSG_DONTWAIT);
            if (size > 0) {
                received.append(bytes.data(), static_cast<int>(size));
                EXPECT_EQ(::send(peer, "OK1", 3, MSG_NOSIGNAL), 3);
            }
            return size == 0 || (size < 0 && errno != EAGAIN);
        }));
        EXPECT_TRUE(received.endsWith(expected)) << received.toHex().constData();
        EXPECT_EQ(recv(peer, bytes.data(), 1, MSG_DONTWAIT), 0); // no reset
        close(peer);
    }
    EXPECT_TRUE(eventually([&] { return processstate::descriptors() == before; }));
}

TEST_F(OsdWalls, ABlockedHostCostsThirtyTwoThreadsAnEndpointAndLosesNothing)
{
    constexpr int endpoints = 3;
    constexpr int answers = 250;
    std::vector<std::unique_ptr<OsdSimulator>> simulated;
    for (int i = 0; i < endpoints; ++i) {
        OsdSimulatorOptions options;
        options.address = ipOf(i);
        options.port = 0;
        options.dataLength = 0;
        simulated.push_back(std::make_unique<OsdSimulator>(options));
        ASSERT_TRUE(simulated.back()->start());
    }
    const int threads = processstate::threads() + 2 * endpoints; // two for each
    for (int i = 0; i < endpoints; ++i) {
        OsdSimulator& device = *simulated.at(static_cast<std::size_t>(i));
        CoreFactory::iOsdCore->openClient(ipOf(i), device.port());
        ASSERT_TRUE(osdhost::settle(ipOf(i), device, 'a'));
    }
    // What has handed on the last answers has ended.
    ASSERT_TRUE(eventually([threads] { return processstate::threads() <= threads; }));
    const std::size_t before = osdhost::size();
    QByteArray all;
    for (int i = 0; i < answers; ++i) {
        all += QByteArray("OK") + static_cast<char>(i);
    }
    {
        const std::lock_guard blocked(biz_Osd_CMDSWork::receiveOsdlock);
        for (const auto& endpoint : simulated) {
            endpoint->send(all);
        }
        ASSERT_TRUE(
            eventually([&] { return processstate::threads() >= threads + 32 * endpoints; }));
        EXPECT_FALSE(eventually([&] { return processstate::threads() > threads + 32 * endpoints; },
                                std::chrono::milliseconds(500)));
    }
    ASSERT_TRUE(
        eventually([&] { return osdhost::size() == before + std::size_t{endpoints} * answers; }));
    const auto records = osdhost::records();
    for (int i = 0; i < endpoints; ++i) {
        QByteArray thirds;
        for (std::size_t j = before; j < records.size(); ++j) {
            if (records[j].strIP == ipOf(i)) {
                thirds += records[j].arryData.at(2);
            }
        }
        QByteArray expected;
        for (int j = 0; j < answers; ++j) {
            expected += static_cast<char>(j);
        }
        // Those that were in the host already came to it on threads of their own.
        EXPECT_EQ(thirds.mid(32).toHex(), expected.mid(32).toHex());
        std::sort(thirds.begin(), thirds.begin() + 32);
        EXPECT_EQ(thirds.left(32).toHex(), expected.left(32).toHex());
    }
    // When all that is over, each gets a thread of its own again.
    bool areTwo = false;
    for (int tries = 0; tries < 10 && !areTwo; ++tries) {
        ASSERT_TRUE(eventually([threads] { return processstate::threads() <= threads; }));
        std::this_thread::sleep_for(std::chrono::milliseconds(50)); // a pass that finds nothing
        const std::lock_guard blocked(biz_Osd_CMDSWork::receiveOsdlock);
        simulated.front()->send("OKxOKy");
        areTwo = eventually([threads] { return processstate::threads() == threads + 2; },
                            std::chrono::milliseconds(500));
    }
    EXPECT_TRUE(areTwo);
}

TEST(OsdExit, TheProcessMayEndAtAnyTime)
{
    constexpr int runs = 30;
    Faults faults;
    faults.set(Fault::Reset, {0.1, 0, 0});
    faults.set(Fault::CloseAfter, {0, 1, 100});
    OsdSimulatorOptions options;
    options.address = QStringLiteral("0.0.0.0");
    options.port = 0;
    options.dataLength = 0;
    options.faults = faults;
    OsdSimulator endpoint(options);
    ASSERT_TRUE(endpoint.start());
    for (int run = 0; run < runs; ++run) {
        QProcess host;
        host.start(QStringLiteral(OSD_EXIT),
                   {QString::number(endpoint.port()), QString::number(run)});
        ASSERT_TRUE(host.waitForFinished(90'000)) << run;
        EXPECT_EQ(host.exitStatus(), QProcess::NormalExit) << run;
        EXPECT_EQ(host.exitCode(), 0) << run;
        // Qt's word for an event loop that begins when main has just returned.
        const QByteArray noLoop = "QEventLoop: Cannot be used without QApplication\n";
        EXPECT_EQ(host.readAllStandardError().replace(noLoop, "").toStdString(), "") << run;
    }
}
