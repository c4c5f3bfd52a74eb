// SPDX-License-Identifier: MIT
// The end of the process, and who looks at it. Each case is a process that ends.
#include "biz_cmdswork.h"
#include "core_udp.h"
#include "debugline.h"
#include "detachedthread.h"
#include "endofprocess.h"
#include "eventually.h"
#include "handoverthread.h"
#include "hostqueue.h"
#include "linktap.h"
#include "replyqueue.h"
#include "replystream.h"
#include "runtoken.h"
#include "sendreport.h"
#include "tests/transports/udppeer.h"
#include "udplink.h"
#include "utility_manage.h"

#include <cstdio>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

namespace
{

using endofprocess::endWith;
using endofprocess::eventuallyTrue;
using std::chrono::milliseconds;

constexpr int allLooks = 200;
constexpr int all = 1000;

std::atomic<int> clears{0};
std::atomic<int> mayReturn{0}; // so many calls of the host
std::atomic<int> lines{0};

void waitUntilOver()
{
    while (!processend::over()) {
        std::this_thread::sleep_for(milliseconds(1));
    }
}

// Until the end of the process waits.
void waitUntilLookedFor()
{
    while (endofprocess::looksBefore == 0) {
        std::this_thread::sleep_for(milliseconds(1));
    }
}

void waitForTurn(int number)
{
    while (mayReturn < number) {
        std::this_thread::sleep_for(milliseconds(1));
    }
}

void expectEnd(const std::function<void()>& before, const std::function<bool()>& after)
{
    EXPECT_EXIT(endWith(before, after), ::testing::ExitedWithCode(0), "");
}

model_Protocoldata numbered(int number)
{
    model_Protocoldata record;
    record.aux7 = number;
    return record;
}

bool nothingComes()
{
    usleep(50'000); // what comes, comes within a millisecond or two
    return biz_CMDSWork::receivequeueHexCmd.empty();
}

} // namespace

// These two take the place of the reference host's, and keep who calls them.
void biz_CMDSWork::clearQueue()
{
    waitForTurn(++clears);
}

void Utility_Manage::writeLog(QString /*text*/)
{
    waitForTurn(++lines);
}

TEST(ProcessEnd, TakesNoTimeWithoutThreads)
{
    EXPECT_FALSE(processend::begun());
    EXPECT_FALSE(processend::over());
    expectEnd(
        [] {
            std::vector<processend::Presence> gone(3);
            gone.resize(20); // copies them
        },
        [] {
            return endofprocess::looksBefore == 0 && endofprocess::looksBehind == 0 &&
                   processend::begun();
        });
}

TEST(ProcessEnd, WaitsTwoHundredMillisecondsAndAsLongBehindThem)
{
    expectEnd(
        [] {
            endofprocess::atOnce = true;
            const processend::Presence first;
            (void)new processend::Presence(first); // stays
        },
        [] {
            return endofprocess::looksBefore == allLooks && endofprocess::looksBehind == allLooks;
        });
}

TEST(ProcessEnd, ALookTakesAMillisecond)
{
    expectEnd([] { (void)new processend::Presence; },
              [start = std::chrono::steady_clock::now()] {
                  return std::chrono::steady_clock::now() - start >= milliseconds(2 * allLooks) &&
                         endofprocess::longestLook == 1'000'000;
              });
}

TEST(ProcessEnd, IsNotOverWhileAThreadDelivers)
{
    static std::atomic<int> wrong{0};
    static std::atomic<bool> isDone{false};
    expectEnd(
        [] {
            endofprocess::awaited() = [] { return isDone.load(); };
            endofprocess::lookPause = endofprocess::longLookPause;
            const bool isStarted = startDetached([] {
                waitUntilLookedFor();
                wrong += processend::begun() ? 0 : 1;
                std::this_thread::sleep_for(milliseconds(5));
                wrong += processend::over() ? 1 : 0;
                isDone = true;
            });
            wrong += isStarted ? 0 : 1;
        },
        [] {
            return wrong == 0 && isDone && endofprocess::looksBefore > 0 &&
                   endofprocess::looksBehind == 0;
        });
}

TEST(ProcessEnd, WaitsForAThreadThatTakesItsTimeBehindTheEnd)
{
    static std::atomic<bool> isDone{false};
    expectEnd(
        [] {
            endofprocess::awaited() = [] { return isDone || !processend::over(); };
            (void)startDetached([] {
                while (endofprocess::looksBehind == 0) {
                    std::this_thread::sleep_for(milliseconds(1));
                }
                std::this_thread::sleep_for(milliseconds(5));
                endofprocess::lookPause = endofprocess::longLookPause;
                isDone = true;
            });
        },
        [] {
            return isDone && endofprocess::looksBefore == allLooks &&
                   endofprocess::looksBehind > 0 && endofprocess::looksBehind < allLooks;
        });
}

TEST(ProcessEnd, WaitsForACallOfAnotherThreadButNotForTheOneThatEnds)
{
    static std::atomic<bool> isDone{false};
    static std::atomic<bool> isCalling{false};
    expectEnd(
        [] {
            endofprocess::awaited() = [] { return isDone.load(); };
            endofprocess::lookPause = endofprocess::longLookPause;
            {
                const processend::Call past; // counts no more
            }
            auto* const own = new processend::Call; // the thread that ends
            EXPECT_TRUE(*own);
            std::thread([] {
                const processend::Call call;
                isCalling = static_cast<bool>(call);
                waitUntilLookedFor();
                std::this_thread::sleep_for(milliseconds(5));
                isDone = true;
            }).detach();
            (void)eventuallyTrue([] { return isCalling.load(); });
        },
        [] {
            return isDone && endofprocess::looksBefore > 0 && endofprocess::looksBehind == 0 &&
                   !processend::Call();
        });
}

TEST(ProcessEnd, ObserversHearOfNothingBehindIt)
{
    static std::atomic<int> heard{0};
    class Counter : public LinkObserver
    {
        void onEvent(const LinkEvent& /*event*/) override { ++heard; }
    };
    static auto* const tap = new LinkTap;
    expectEnd(
        [] {
            endofprocess::awaited() = [] { return heard == 1; };
            tap->add(std::make_shared<Counter>());
            (void)startDetached([] {
                waitUntilLookedFor();
                tap->tell(LinkEvent::Kind::Sent); // a delivery
            });
        },
        [] {
            tap->tell(LinkEvent::Kind::Sent);
            return heard == 1;
        });
}

// Qt reads the pattern when the first line is written, and forgets it before what was made earlier.
TEST(ProcessEnd, DebugLinesOfDeliveriesStillHaveTheirPattern)
{
    static std::atomic<bool> isWritten{false};
    const auto lateLine = [] {
        qputenv("QT_MESSAGE_PATTERN", "pattern %{message}");
        endWith(
            [] {
                endofprocess::awaited() = [] { return isWritten.load(); };
                qCDebug(debugLine) << "early";
                (void)startDetached([] {
                    waitUntilLookedFor();
                    qCDebug(debugLine) << "late";
                    isWritten = true;
                });
            },
            [] { return true; });
    };
    EXPECT_EXIT(lateLine(), ::testing::ExitedWithCode(0), "pattern late");
}

// An event loop may run on behind it. What is read then would be lost without a trace.
TEST(ProcessEnd, NoDatagramIsReadBehindIt)
{
    static const auto isUnread = [] { // of port 5104
        std::ifstream sockets("/proc/self/net/udp6");
        unsigned unread = 0;
        for (std::string line; unread == 0 && std::getline(sockets, line);) {
            const auto port = line.find(":13F0 ");
            if (port != std::string::npos) {
                (void)std::sscanf(line.c_str() + port, "%*s %*s %*s %*x:%x", &unread);
            }
        }
        return unread > 0;
    };
    static UdpPeer* peer = nullptr;
    expectEnd(
        [] {
            hostqueue::clear();
            (void)new core_UDP;
            peer = new UdpPeer;
            peer->send(replyText(0x10, 0x20));
            ASSERT_TRUE(eventually([] { return hostqueue::size() == 1 && !isUnread(); }));
        },
        [] {
            peer->send(replyText(0x10, 0x20));
            for (int i = 0; i < 10; ++i) {
                QCoreApplication::processEvents();
            }
            return isUnread();
        });
}

TEST(ProcessEnd, NoReplyIsQueuedBehindIt)
{
    expectEnd([] { hostqueue::clear(); },
              [] {
                  replyqueue::append(numbered(1), LinkTap());
                  replyqueue::post(numbered(2), LinkTap());
                  replyqueue::raiseRetFlag();
                  return nothingComes() && !biz_CMDSWork::bRetFlag;
              });
}

TEST(ProcessEnd, TheHostsLockIsNotTakenBehindIt)
{
    expectEnd([] {},
              [] {
                  const std::lock_guard lock(biz_CMDSWork::receiveHexCmdlock);
                  replyqueue::append(numbered(1), LinkTap()); // would wait for ever
                  return true;
              });
}

TEST(ProcessEnd, AReplyThatWaitsForTheHostsLockIsGivenUp)
{
    static std::atomic<bool> isWaiting{false};
    expectEnd(
        [] {
            hostqueue::clear();
            endofprocess::atOnce = true;
            biz_CMDSWork::receiveHexCmdlock.lock();
            replyqueue::post(numbered(1), LinkTap());
            (void)startDetached([] {
                isWaiting = true;
                replyqueue::append(numbered(2), LinkTap());
            });
            (void)eventuallyTrue([] { return isWaiting.load(); });
            usleep(20'000); // into the lock
        },
        [] {
            biz_CMDSWork::receiveHexCmdlock.unlock();
            return nothingComes();
        });
}

TEST(ProcessEnd, NoFurtherClearIsBegun)
{
    expectEnd(
        [] {
            endofprocess::atOnce = true;
            const auto work = replyqueue::makeWork();
            replyqueue::clearElsewhere(work);
            (void)eventuallyTrue([] { return clears == 1; });
            replyqueue::clearElsewhere(work); // with the next one a batch
            replyqueue::clearElsewhere(work);
            mayReturn = 1;
            (void)eventuallyTrue([] { return clears == 2; });
        },
        [] {
            mayReturn = all;
            usleep(50'000);
            return clears == 2;
        });
}

TEST(ProcessEnd, NoFurtherLineIsWritten)
{
    expectEnd(
        [] {
            endofprocess::atOnce = true;
            UdpLink::reportFailure("first");
            (void)eventuallyTrue([] { return lines == 1; });
            UdpLink::reportFailure("second"); // with the next one a batch
            UdpLink::reportFailure("third");
            mayReturn = 1;
            (void)eventuallyTrue([] { return lines == 2; });
        },
        [] {
            mayReturn = all;
            reportSend(true, nullptr, QString());
            usleep(50'000);
            return lines == 2;
        });
}

TEST(ProcessEnd, WhatIsLeftOfABatchIsNotDestroyed)
{
    static std::atomic<int> destroyed{0};
    static std::atomic<int> handled{0};
    struct Item {
        Item() = default;
        Item(Item&& other) noexcept : isReal(std::exchange(other.isReal, false)) {}
        Item& operator=(Item&&) = delete;
        Item(const Item&) = delete;
        Item& operator=(const Item&) = delete;
        ~Item() { destroyed += isReal ? 1 : 0; }
        bool isReal = true;
    };
    static auto* const queue = new HandOverThread<Item>([](std::deque<Item>&) {
        ++handled;
        waitUntilOver();
    });
    expectEnd(
        [] {
            endofprocess::atOnce = true;
            queue->put(Item());
            (void)eventuallyTrue([] { return handled == 1; });
        },
        [] {
            queue->put(Item());
            usleep(50'000);
            return destroyed == 0 && handled == 1;
        });
}

TEST(ProcessEnd, WhatComesBehindItIsNotHandled)
{
    static std::atomic<int> handled{0};
    static auto* const queue = new HandOverThread<int>([](std::deque<int>&) { ++handled; });
    expectEnd(
        [] {
            queue->put(1);
            (void)eventuallyTrue([] { return handled == 1 && queue->size() == 0; });
        },
        [] {
            queue->put(2);
            usleep(50'000);
            return handled == 1;
        });
}

TEST(ProcessEnd, EveryWorkerStops)
{
    static RunToken token(true);
    expectEnd([] { EXPECT_TRUE(token.goesOn()); }, [] { return token.isSet() && !token.goesOn(); });
}

TEST(ProcessEnd, NobodyWaitsForABlock)
{
    class Stream : public ReplyStream
    {
    public:
        int pauses = 0;

    private:
        void sleep(milliseconds /*duration*/) override { ++pauses; }
    };
    expectEnd([] {},
              [] {
                  Stream stream;
                  QByteArray block;
                  return !stream.takeBlock(numbered(1), 10, block) && stream.pauses == 0;
              });
}
