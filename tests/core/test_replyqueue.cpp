// SPDX-License-Identifier: MIT
#include "biz_cmdswork.h"
#include "eventually.h"
#include "hostqueue.h"
#include "messagecapture.h"
#include "processstate.h"
#include "recordequality.h"
#include "replyqueue.h"
#include "threadrefusal.h"
#include "warningcapture.h"

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

model_Protocoldata filled()
{
    model_Protocoldata record;
    record.strKey = QStringLiteral("key");
    record.bKeyFlag = 0xF1;
    record.strKey2 = QString(QLatin1String("")); // empty, not null
    record.HEAD = 0xF2;
    record.aux1 = 0xF103;
    record.aux2 = 0xF104;
    record.aux3 = 0xF5;
    record.aux4 = 0xF106;
    record.aux5 = 0xF107;
    record.aux6 = 0xF108;
    record.ADDR = 0xF9;
    record.CMD = 0xFA;
    record.DAT1 = 0xFB;
    record.DAT2 = 0xFC;
    record.DAT3 = 0xFD;
    record.DAT4 = 0xFE;
    record.CHKSUM = 0xFF;
    record.aux7 = -0x70000001;
    record.strReply = QStringLiteral("reply");
    record.arryDatablock = QByteArray("with\0zero", 9);
    record.sendMode = 0xF3;
    record.featureCode = -0x70000002;
    return record;
}

// Two records for which no thread can be had.
void postRefused()
{
    const ThreadRefusal refusal;
    const int before = ThreadRefusal::refused();
    const std::lock_guard lock(biz_CMDSWork::receiveHexCmdlock);
    replyqueue::post(numbered(0));
    replyqueue::post(numbered(1));
    EXPECT_GE(ThreadRefusal::refused(), before + 2);
}

// Whether the record is in the queue although its flag cannot be up yet and nobody has the lock.
bool isQueuedUnguarded()
{
    const std::unique_lock lock(biz_CMDSWork::receiveHexCmdlock, std::try_to_lock);
    return lock && !biz_CMDSWork::receivequeueHexCmd.empty();
}

void expectFlagUnderQueueLock(void (*handOver)())
{
    hostqueue::clear();
    {
        const std::lock_guard noFlag(biz_CMDSWork::HexCmdlock);
        std::thread(handOver).detach();
        for (int look = 0; look < 100; ++look) {
            EXPECT_FALSE(isQueuedUnguarded());
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }
    EXPECT_TRUE(eventually([] { return hostqueue::size() == 1; }));
    EXPECT_TRUE(hostqueue::flag());
}

} // namespace

TEST(ReplyQueue, EveryMemberIsKept)
{
    hostqueue::clear();
    const model_Protocoldata record = filled();
    replyqueue::append(record);
    replyqueue::post(record);
    {
        const std::lock_guard lock(biz_CMDSWork::receiveHexCmdlock);
        replyqueue::post(record); // comes on a thread
    }
    ASSERT_TRUE(eventually([] { return hostqueue::size() == 3; }));
    for (const model_Protocoldata& queued : hostqueue::records()) {
        EXPECT_TRUE(sameRecord(queued, record));
    }
    EXPECT_TRUE(hostqueue::flag());
}

// Who sees the flag finds the record: the queue's lock is kept until the flag is up.
TEST(ReplyQueue, AppendingRaisesTheFlagUnderTheQueuesLock)
{
    expectFlagUnderQueueLock([] { replyqueue::append(numbered(0)); });
}

TEST(ReplyQueue, PostingRaisesTheFlagUnderTheQueuesLock)
{
    expectFlagUnderQueueLock([] { replyqueue::post(numbered(0)); });
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
    const WarningCapture warnings;
    const int threads = processstate::threads();
    // A thread that is still there takes what is posted.
    const auto isIdle = [threads] { return processstate::threads() <= threads; };
    for (int round = 0; round < 3; ++round) {
        ASSERT_TRUE(eventually(isIdle));
        hostqueue::clear();
        postRefused();
        // No further reply comes: the event loop brings them.
        ASSERT_TRUE(eventually([] { return hostqueue::size() == 2; })) << round;
        EXPECT_TRUE(inOrder(2));
        EXPECT_TRUE(hostqueue::flag());

        // The same from a thread that has no event loop, as those of the links have none.
        ASSERT_TRUE(eventually(isIdle));
        hostqueue::clear();
        std::thread(postRefused).join();
        ASSERT_TRUE(eventually([] { return hostqueue::size() == 2; })) << round;
        EXPECT_TRUE(inOrder(2));
    }
    EXPECT_EQ(warnings.lines(), QStringList());
}

TEST(ReplyQueue, RefusedThreadIsTriedAgainByTheNextApplicationToo)
{
    static int argc = 1;
    static char name[] = "test";
    static char* argv[] = {name, nullptr};
    hostqueue::clear();
    QCoreApplication* const application = QCoreApplication::instance();
    for (int lives = 0; lives < 3; ++lives) {
        postRefused();
        application->~QCoreApplication(); // with a retry pending
        new (application) QCoreApplication(argc, argv);
        if (lives == 1) {
            QCoreApplication::sendPostedEvents(); // the timer runs, and goes with this application
        }
    }
    postRefused();
    EXPECT_TRUE(eventually([] { return hostqueue::size() == 8; }));
}

TEST(ReplyQueue, ARefusedClearIsDoneLater)
{
    const auto work = std::make_shared<biz_CMDSWork>();
    hostqueue::clear();
    replyqueue::append(numbered(0));
    {
        const ThreadRefusal refusal;
        const std::lock_guard lock(biz_CMDSWork::receiveHexCmdlock);
        replyqueue::clearElsewhere(work); // does not wait for the lock
    }
    EXPECT_EQ(hostqueue::size(), 1U);
    EXPECT_TRUE(eventually([] { return hostqueue::size() == 0; }));
    EXPECT_TRUE(eventually([&] { return work.use_count() == 1; }));
}

TEST(ReplyQueue, ARefusedClearTakesNothingThatComesLater)
{
    hostqueue::clear();
    replyqueue::append(numbered(7));
    const auto work = std::make_shared<biz_CMDSWork>();
    {
        const ThreadRefusal refusal;
        replyqueue::clearElsewhere(work);
    }
    replyqueue::append(numbered(0));
    EXPECT_TRUE(inOrder(1));
    EXPECT_EQ(work.use_count(), 1);
    EXPECT_FALSE(eventually([] { return hostqueue::size() != 1; }, std::chrono::milliseconds(50)));
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
    posters.reserve(4);
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
    ASSERT_TRUE(eventually([] { return hostqueue::size() == std::size_t{4} * each; }));
    int next[4] = {0, 0, 0, 0};
    for (const model_Protocoldata& record : hostqueue::records()) {
        ASSERT_EQ(record.aux7, next[record.HEAD]++); // each poster's records stay in its order
    }
}
