// SPDX-License-Identifier: MIT
// What endpoints do when the process ends. Each case is a process that ends.
#include "biz_osd_cmdswork.h"
#include "core_osd_tcpsocket.h"
#include "endofprocess.h"
#include "eventually.h"
#include "lingeringclose.h"
#include "netns.h"
#include "osdconnection.h"
#include "shortest.h"
#include "tcplistener.h"
#include "threadrefusal.h"
#include "utility_manage.h"

#include <array>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/socket.h>

namespace
{

using endofprocess::endWith;
using endofprocess::eventuallyTrue;
using std::chrono::milliseconds;

std::atomic<int> lines{0};

void expectEnd(const std::function<void()>& before, const std::function<bool()>& after)
{
    EXPECT_EXIT(endWith(before, after), ::testing::ExitedWithCode(0), "");
}

void waitUntilOver()
{
    while (!processend::over()) {
        std::this_thread::sleep_for(milliseconds(1));
    }
}

// An endpoint with a peer that takes nothing. Never destroyed.
struct Connected {
    Connected()
    {
        connection->endpoint.setAddress({QStringLiteral("127.0.0.1"), listener.port()});
        connection->begin();
        peer = listener.accept();
        EXPECT_EQ(::send(peer, ".", 1, MSG_NOSIGNAL), 1);
        EXPECT_TRUE(eventually([this] { return connection->endpoint.received.size() == 1; }));
    }

    TcpListener listener{1};
    std::shared_ptr<OsdConnection> connection = std::make_shared<OsdConnection>(nullptr);
    int peer = -1;
};

} // namespace

// Takes the place of the reference host's.
void Utility_Manage::writeLog(QString /*text*/)
{
    ++lines;
}

TEST(OsdProcessEnd, ItsThreadsEnd)
{
    static Connected* connected = nullptr;
    expectEnd([] { connected = new Connected; },
              [] {
                  return eventuallyTrue([] {
                      return connected->connection->isFinished() &&
                             !connected->connection->endpoint.token.isRunning();
                  });
              });
}

// What the peer does not take is left to the system.
TEST(OsdProcessEnd, ACloseDoesNotWaitForWhatIsPending)
{
    static std::vector<Connected*> all;
    expectEnd(
        [] {
            netns::limitBuffers();
            const QByteArray much(1024 * 1024, 'm');
            for (int i = 0; i < 10; ++i) {
                all.push_back(new Connected);
                all.back()->connection->endpoint.token.set(false);
                all.back()->connection->send(much); // does not wait, the endpoint is stopped
            }
        },
        [] {
            auto close = [next = 0U]() mutable {
                return elapsed([&next] { all.at(next++)->connection->closeSocket(); });
            };
            return shortest(2500, close) < 2500; // not its 3000
        });
}

TEST(OsdProcessEnd, AFrameThatIsSentThenIsGivenToTheSystem)
{
    static Connected* connected = nullptr;
    static std::atomic<bool> isHeld{false}; // the thread that would close
    static std::atomic<bool> isInside{false};
    expectEnd(
        [] {
            endofprocess::atOnce = true;
            endofprocess::held() = [](const timespec& /*time*/) {
                while (isHeld) {
                    isInside = true;
                    usleep(1000);
                }
            };
            connected = new Connected;
            isHeld = true;
            (void)eventuallyTrue([] { return isInside.load(); });
        },
        [] {
            connected->connection->send("last");
            std::array<char, 5> bytes{};
            return recv(connected->peer, bytes.data(), bytes.size(), MSG_DONTWAIT) == 4;
        });
}

TEST(OsdProcessEnd, NoAcknowledgementIsHandedOnBehindIt)
{
    static auto* const endpoint = new OsdEndpoint;
    static std::atomic<bool> isInPass{false};
    static std::atomic<bool> isDone{false};
    expectEnd(
        [] {
            endofprocess::atOnce = true;
            endpoint->received.append("OK1", 3);
            endpoint->token.set(true);
            (void)startDetached([] {
                endpoint->deal([] {
                    isInPass = true;
                    waitUntilOver();
                });
                isDone = true;
            });
            (void)eventuallyTrue([] { return isInPass.load(); });
        },
        [] {
            (void)eventuallyTrue([] { return isDone.load(); });
            usleep(50'000);
            return isInPass && isDone && biz_Osd_CMDSWork::receivequeueOsd.empty();
        });
}

TEST(OsdProcessEnd, AShortageIsNotLoggedBehindIt)
{
    static auto* const connection =
        new std::shared_ptr<OsdConnection>(std::make_shared<OsdConnection>(nullptr));
    expectEnd(
        [] {
            const ThreadRefusal refusal;
            (*connection)->begin();
            if (lines != 1) {
                _exit(3);
            }
        },
        [] {
            const ThreadRefusal refusal;
            (*connection)->begin();
            return lines == 1;
        });
}

TEST(OsdProcessEnd, ALossIsNotToldBehindIt)
{
    static std::atomic<int> losses{0};
    static std::atomic<bool> isLost{false};
    static Core_Osd_TcpSocket* socket = nullptr;
    static TcpListener* listener = nullptr;
    expectEnd(
        [] {
            listener = new TcpListener(1);
            socket = new Core_Osd_TcpSocket(nullptr);
            QObject::connect(
                socket, &Core_Osd_TcpSocket::closeSocket, socket, [] { ++losses; },
                Qt::DirectConnection);
            endofprocess::held() = [](const timespec& time) {
                if (time.tv_nsec == 100'000'000) { // the pause behind a loss
                    isLost = true;
                    waitUntilOver();
                }
            };
            socket->connectSever(QStringLiteral("127.0.0.1"), listener->port());
            ::close(listener->accept());
            (void)eventuallyTrue([] { return isLost.load(); });
            endofprocess::atOnce = true;
        },
        [] { // it sleeps out its pause, and ends
            return eventuallyTrue([] { return socket->thread()->isFinished(); }) && isLost &&
                   losses == 0;
        });
}

TEST(OsdProcessEnd, LingeringConnectionsAreClosed)
{
    static int lingering = -1;
    expectEnd(
        [] {
            auto* const listener = new TcpListener(1);
            lingering = socket(AF_INET, SOCK_STREAM, 0);
            EXPECT_EQ(connect(lingering, listener->name(), sizeof(sockaddr_in)), 0);
            lingeringclose::begin(lingering);
            usleep(30'000);
            if (fcntl(lingering, F_GETFD) < 0) {
                _exit(3);
            }
        },
        [] { return eventuallyTrue([] { return fcntl(lingering, F_GETFD) < 0; }); });
}
