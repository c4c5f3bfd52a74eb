// SPDX-License-Identifier: MIT
#include "biz_cmdswork.h"
#include "eventually.h"
#include "hostqueue.h"
#include "messagecapture.h"
#include "processstate.h"
#include "replyqueue.h"
#include "threadrefusal.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace
{

model_Protocoldata numbered(int number)
{
    model_Protocoldata record;
    record.aux7 = number;
    return record;
}

bool inOrder(int count)
{
    const auto records = hostqueue::records();
    for (int i = 0; i < count; ++i) {
        if (records.at(static_cast<std::size_t>(i)).aux7 != i) {
            return false;
        }
    }
    return records.size() == static_cast<std::size_t>(count);
}

} // namespace

TEST(ReplyQueue, AppendKeepsEveryMember)
{
    hostqueue::clear();
    model_Protocoldata record = numbered(-5);
    record.strReply = QStringLiteral("kept");
    record.arryDatablock = "block";
    record.sendMode = 9;
    replyqueue::append(record);
    ASSERT_EQ(hostqueue::size(), 1U);
    EXPECT_EQ(hostqueue::records().front().aux7, -5);
    EXPECT_EQ(hostqueue::records().front().strReply, QStringLiteral("kept"));
    EXPECT_EQ(hostqueue::records().front().sendMode, 9);
    EXPECT_TRUE(hostqueue::flag());
}

TEST(ReplyQueue, PostIsThereAtOnceWhenTheHostHoldsNothing)
{
    hostqueue::clear();
    for (int i = 0; i < 1000; ++i) {
        replyqueue::post(numbered(i));
        ASSERT_EQ(hostqueue::size(), static_cast<std::size_t>(i) + 1);
    }
    EXPECT_TRUE(inOrder(1000));
    EXPECT_TRUE(hostqueue::flag());
}

TEST(ReplyQueue, PostNeverWaitsAndOneThreadBringsABurstInOrder)
{
    for (std::mutex* held : {&biz_CMDSWork::receiveHexCmdlock, &biz_CMDSWork::HexCmdlock}) {
        hostqueue::clear();
        const int before = processstate::threads();
        {
            const std::lock_guard lock(*held);
            for (int i = 0; i < 100000; ++i) {
                replyqueue::post(numbered(i));
            }
            EXPECT_LE(processstate::threads(), before + 1);
        }
        ASSERT_TRUE(eventually([] { return hostqueue::size() == 100000; }));
        EXPECT_TRUE(inOrder(100000));
        EXPECT_TRUE(hostqueue::flag());
        ASSERT_TRUE(eventually([before] { return processstate::threads() == before; }));
    }
}

TEST(ReplyQueue, OrderHoldsAcrossTheEndOfABacklog)
{
    hostqueue::clear();
    int next = 0;
    for (int round = 0; round < 200; ++round) {
        {
            const std::lock_guard lock(biz_CMDSWork::receiveHexCmdlock);
            replyqueue::post(numbered(next++));
        }
        for (int i = 0; i < 50; ++i) {
            replyqueue::post(numbered(next++));
        }
    }
    ASSERT_TRUE(eventually([next] { return hostqueue::size() == static_cast<std::size_t>(next); }));
    EXPECT_TRUE(inOrder(next));
}

TEST(ReplyQueue, RefusedThreadLosesNothing)
{
    hostqueue::clear();
    {
        const ThreadRefusal refusal;
        const int before = ThreadRefusal::refused();
        const std::lock_guard lock(biz_CMDSWork::receiveHexCmdlock);
        replyqueue::post(numbered(0));
        replyqueue::post(numbered(1));
        EXPECT_GE(ThreadRefusal::refused(), before + 2);
    }
    // No further reply comes: the event loop brings them.
    ASSERT_TRUE(eventually([] { return hostqueue::size() == 2; }));
    EXPECT_TRUE(inOrder(2));
    EXPECT_TRUE(hostqueue::flag());
}

TEST(ReplyQueue, RefusedThreadsEndWithTheNextReply)
{
    hostqueue::clear();
    {
        const ThreadRefusal refusal;
        const std::lock_guard lock(biz_CMDSWork::receiveHexCmdlock);
        replyqueue::post(numbered(0));
    }
    replyqueue::post(numbered(1));
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (hostqueue::size() < 2 && std::chrono::steady_clock::now() < end) { // no event loop
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_TRUE(inOrder(2));
}

TEST(ReplyQueue, FailureRaisesTheFlagThenReports)
{
    hostqueue::clear();
    const MessageCapture capture;
    {
        const std::lock_guard lock(biz_CMDSWork::HexCmdlock);
        replyqueue::postFailure("no block came");
        EXPECT_EQ(capture.count(QStringLiteral("no block came")), 0);
    }
    ASSERT_TRUE(
        eventually([] { return hostqueue::countLog(QStringLiteral("no block came")) == 1; }));
    EXPECT_EQ(capture.count(QStringLiteral("no block came")), 1);
    EXPECT_TRUE(hostqueue::flag());
    EXPECT_EQ(hostqueue::size(), 0U);
}

// The process ends with replies pending: freely, and with the host's lock never let go.
TEST(ReplyQueueDeathTest, ExitWithRepliesPending)
{
    for (const bool forever : {false, true}) {
        EXPECT_EXIT(
            {
                biz_CMDSWork::receiveHexCmdlock.lock();
                for (int i = 0; i < 1000; ++i) {
                    replyqueue::post(numbered(i));
                    replyqueue::postFailure("late");
                }
                if (!forever) {
                    biz_CMDSWork::receiveHexCmdlock.unlock();
                }
                std::exit(0);
            },
            ::testing::ExitedWithCode(0), "");
    }
}

TEST(ReplyQueue, LaterOfTwoFlagCallsWins)
{
    for (int round = 0; round < 200; ++round) {
        std::thread lower([] { replyqueue::setRetFlag(false); });
        lower.join();
        std::thread raise([] { replyqueue::setRetFlag(true); });
        raise.join();
        ASSERT_TRUE(hostqueue::flag());
        replyqueue::setRetFlag(false);
        ASSERT_FALSE(hostqueue::flag());
    }
}

TEST(ReplyQueue, PostersOnSeveralThreadsLoseNothing)
{
    hostqueue::clear();
    constexpr int each = 20000;
    std::vector<std::thread> posters;
    for (int poster = 0; poster < 4; ++poster) {
        posters.emplace_back([poster] {
            for (int i = 0; i < each; ++i) {
                model_Protocoldata record = numbered(i);
                record.HEAD = static_cast<quint8>(poster);
                replyqueue::post(record);
            }
        });
    }
    for (int i = 0; i < 100; ++i) {
        const std::lock_guard lock(biz_CMDSWork::receiveHexCmdlock);
        std::this_thread::yield();
    }
    for (std::thread& poster : posters) {
        poster.join();
    }
    ASSERT_TRUE(eventually([] { return hostqueue::size() == 4 * each; }));
    int next[4] = {0, 0, 0, 0};
    for (const model_Protocoldata& record : hostqueue::records()) {
        ASSERT_EQ(record.aux7, next[record.HEAD]++); // each poster's records stay in its order
    }
}
