// SPDX-License-Identifier: MIT
#include "biz_cmdswork.h"
#include "eventlog.h"
#include "eventually.h"
#include "hostqueue.h"
#include "linktap.h"
#include "processstate.h"
#include "recordequality.h"
#include "replyqueue.h"
#include "threadrefusal.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <fstream>

#include <sys/resource.h>
#include <unistd.h>

namespace
{

int worksDestroyed = 0;

model_Protocoldata numbered(int number)
{
    model_Protocoldata record;
    record.aux7 = number;
    return record;
}

void append(const model_Protocoldata& record)
{
    replyqueue::append(record, LinkTap());
}

void post(const model_Protocoldata& record)
{
    replyqueue::post(record, LinkTap());
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

// Takes the place of the reference host's, which has nothing to do.
biz_CMDSWork::~biz_CMDSWork()
{
    ++worksDestroyed;
}

TEST(ReplyQueue, TheHostsWorkIsDestroyed)
{
    worksDestroyed = 0;
    replyqueue::makeWork();
    EXPECT_EQ(worksDestroyed, 1);
}

TEST(ReplyQueue, EveryMemberIsKept)
{
    hostqueue::clear();
    const model_Protocoldata record = filled();
    append(record);
    post(record);
    {
        const std::lock_guard lock(biz_CMDSWork::receiveHexCmdlock);
        post(record); // comes on a thread
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
    expectFlagUnderQueueLock([] { append(numbered(0)); });
}

TEST(ReplyQueue, PostingRaisesTheFlagUnderTheQueuesLock)
{
    expectFlagUnderQueueLock([] { post(numbered(0)); });
}

TEST(ReplyQueue, PostIsThereAtOnceWhenTheHostHoldsNothing)
{
    hostqueue::clear();
    for (int i = 0; i < 1000; ++i) {
        post(numbered(i));
        ASSERT_EQ(hostqueue::size(), static_cast<std::size_t>(i) + 1);
    }
    EXPECT_TRUE(inOrder(1000));
    EXPECT_TRUE(hostqueue::flag());
}

TEST(ReplyQueue, PostNeverWaitsAndABurstComesInOrderWithoutAFurtherThread)
{
    const int before = processstate::threads();
    ASSERT_TRUE(replyqueue::start());
    ASSERT_TRUE(eventually([before] { return processstate::threads() == before; }));
    for (std::mutex* held : {&biz_CMDSWork::receiveHexCmdlock, &biz_CMDSWork::HexCmdlock}) {
        hostqueue::clear();
        {
            const std::lock_guard lock(*held);
            for (int i = 0; i < 100000; ++i) {
                post(numbered(i));
            }
            EXPECT_EQ(processstate::threads(), before);
        }
        ASSERT_TRUE(eventually([] { return hostqueue::size() == 100000; }));
        EXPECT_TRUE(inOrder(100000));
        EXPECT_TRUE(hostqueue::flag());
    }
}

TEST(ReplyQueue, OrderHoldsAcrossTheEndOfABacklog)
{
    hostqueue::clear();
    int next = 0;
    for (int round = 0; round < 200; ++round) {
        {
            const std::lock_guard lock(biz_CMDSWork::receiveHexCmdlock);
            post(numbered(next++));
        }
        for (int i = 0; i < 50; ++i) {
            post(numbered(next++));
        }
    }
    ASSERT_TRUE(eventually([next] { return hostqueue::size() == static_cast<std::size_t>(next); }));
    EXPECT_TRUE(inOrder(next));
}

TEST(ReplyQueue, ThreadsRefusedAfterTheStartChangeNothing)
{
    ASSERT_TRUE(replyqueue::start());
    const auto work = std::make_shared<biz_CMDSWork>();
    for (int round = 0; round < 3; ++round) {
        hostqueue::clear();
        append(numbered(7));
        {
            const ThreadRefusal refusal;
            const std::lock_guard lock(biz_CMDSWork::receiveHexCmdlock);
            replyqueue::clearElsewhere(work); // waits for none of the host's locks
        }
        ASSERT_TRUE(eventually([] { return hostqueue::size() == 0; }));
        {
            const ThreadRefusal refusal;
            const std::lock_guard lock(biz_CMDSWork::receiveHexCmdlock);
            post(numbered(0));
            post(numbered(1));
        }
        // No further reply comes, and no event loop turns.
        ASSERT_TRUE(eventually([] { return hostqueue::size() == 2; }));
        EXPECT_TRUE(inOrder(2));
        EXPECT_TRUE(hostqueue::flag());
    }
    EXPECT_TRUE(eventually([&] { return work.use_count() == 1; }));
}

TEST(ReplyQueue, RefusedTheirThreadsRecordsWaitForTheNextLink)
{
    hostqueue::clear();
    {
        const ThreadRefusal refusal;
        EXPECT_FALSE(replyqueue::start());
        const std::lock_guard lock(biz_CMDSWork::receiveHexCmdlock);
        post(numbered(0));
        post(numbered(1));
    }
    EXPECT_EQ(hostqueue::size(), 0U);
    EXPECT_TRUE(replyqueue::start());
    ASSERT_TRUE(eventually([] { return hostqueue::size() == 2; }));
    EXPECT_TRUE(inOrder(2));
}

TEST(ReplyQueue, TheFlagIsRaisedAlthoughRecordsWaitForTheQueuesLock)
{
    hostqueue::clear();
    {
        const std::lock_guard lock(biz_CMDSWork::receiveHexCmdlock);
        post(numbered(0));
        replyqueue::raiseRetFlag();
        EXPECT_TRUE(hostqueue::flag());
    }
    ASSERT_TRUE(eventually([] { return hostqueue::size() == 1; }));
    {
        const std::lock_guard lock(biz_CMDSWork::receiveHexCmdlock);
        hostqueue::setFlag(false);
        {
            const std::lock_guard flagLock(biz_CMDSWork::HexCmdlock);
            post(numbered(1));
            replyqueue::raiseRetFlag(); // does not wait
            replyqueue::raiseRetFlag();
        }
        EXPECT_TRUE(eventually([] { return hostqueue::flag(); }));
        EXPECT_EQ(biz_CMDSWork::receivequeueHexCmd.size(), 1U);
    }
    EXPECT_TRUE(eventually([] { return hostqueue::size() == 2; }));
}

TEST(ReplyQueue, AFlagAloneIsRaisedOnceItsLockIsFree)
{
    hostqueue::clear();
    {
        const std::lock_guard flagLock(biz_CMDSWork::HexCmdlock);
        replyqueue::raiseRetFlag();
        EXPECT_FALSE(biz_CMDSWork::bRetFlag);
    }
    EXPECT_TRUE(eventually([] { return hostqueue::flag(); }));
    EXPECT_EQ(hostqueue::size(), 0U);
    hostqueue::setFlag(false);
    {
        const std::lock_guard lock(biz_CMDSWork::receiveHexCmdlock);
        post(numbered(0));
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        EXPECT_FALSE(hostqueue::flag()); // once is enough: from here on it is the record's
    }
    EXPECT_TRUE(eventually([] { return hostqueue::size() == 1; })); // the flag holds nothing up
    EXPECT_TRUE(hostqueue::flag());
}

TEST(ReplyQueue, WaitingForTheHostCostsNoProcessor)
{
    hostqueue::clear();
    {
        const std::lock_guard lock(biz_CMDSWork::receiveHexCmdlock);
        const double before = processstate::cpuSeconds();
        post(numbered(0));
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        EXPECT_LT(processstate::cpuSeconds() - before, 0.1);
    }
    EXPECT_TRUE(eventually([] { return hostqueue::size() == 1; }));
}

TEST(ReplyQueue, ObserversHearOfAReplyOnce)
{
    hostqueue::clear();
    const auto log = std::make_shared<EventLog>();
    LinkTap tap;
    EXPECT_FALSE(tap.isWatched());
    tap.add(log);
    EXPECT_TRUE(tap.isWatched());
    replyqueue::append(filled(), tap);
    const auto told = log->all(LinkEvent::Kind::Reply);
    ASSERT_EQ(told.size(), 1U);
    EXPECT_TRUE(sameRecord(told.front().reply, filled()));
    EXPECT_EQ(told.front().event.peer, filled().strKey2);
    EXPECT_EQ(told.front().event.port, 0);
    tap.remove(log);
    EXPECT_FALSE(tap.isWatched()); // no record is copied for nobody
}

TEST(ReplyQueue, AClearThatTakesLongHoldsUpNoRecord)
{
    const auto work = std::make_shared<biz_CMDSWork>();
    hostqueue::clear();
    {
        const std::lock_guard lock(biz_CMDSWork::receiveHexCmdlock);
        replyqueue::clearElsewhere(work); // waits for the lock
        replyqueue::raiseRetFlag();
        EXPECT_TRUE(hostqueue::flag());
    }
    ASSERT_TRUE(eventually([&] { return work.use_count() == 1; }));
    post(numbered(0));
    EXPECT_EQ(hostqueue::size(), 1U);
}

TEST(ReplyQueue, WhatWaitsForTheHostHasABound)
{
    hostqueue::clear();
    model_Protocoldata record;
    record.arryDatablock = QByteArray(1024 * 1024, 'b');
    {
        const std::lock_guard lock(biz_CMDSWork::receiveHexCmdlock);
        for (int i = 0; i < 15; ++i) {
            post(record);
            EXPECT_FALSE(replyqueue::isFull());
        }
        post(record);
        EXPECT_TRUE(replyqueue::isFull());
    }
    EXPECT_TRUE(eventually([] { return hostqueue::size() == 16; }));
    EXPECT_FALSE(replyqueue::isFull());
}

TEST(ReplyQueue, TheBoundIsExact)
{
    hostqueue::clear();
    model_Protocoldata record;
    constexpr auto others = static_cast<int>(2 * sizeof record);
    {
        const std::lock_guard lock(biz_CMDSWork::receiveHexCmdlock);
        record.arryDatablock = QByteArray(16 * 1024 * 1024 - others - 1, 'b');
        post(record);
        EXPECT_FALSE(replyqueue::isFull());
        record.arryDatablock = QByteArray("b");
        post(record);
        EXPECT_TRUE(replyqueue::isFull());
    }
    EXPECT_TRUE(eventually([] { return hostqueue::size() == 2; }));
}

// The process ends with replies pending: freely, and with the host's lock never let go.
TEST(ReplyQueueDeathTest, ExitWithRepliesPending)
{
    for (const bool forever : {false, true}) {
        EXPECT_EXIT(
            {
                biz_CMDSWork::receiveHexCmdlock.lock();
                for (int i = 0; i < 1000; ++i) {
                    post(numbered(i));
                    replyqueue::raiseRetFlag();
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
                post(record);
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

// The host's own queue cannot grow: what the library is to do then, C++ says.
TEST(ReplyQueueDeathTest, AHostThatNeverTakesARecordOffEndsWithoutMemory)
{
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a limited address space is missing, sanitizers need all of it";
#endif
    const auto neverTake = []() noexcept {
        constexpr rlim_t more = rlim_t{64} * 1024 * 1024;
        std::ifstream pages("/proc/self/statm");
        rlim_t used = 0;
        pages >> used;
        const rlim_t limit = used * static_cast<rlim_t>(getpagesize()) + more;
        const rlimit space{limit, limit};
        setrlimit(RLIMIT_AS, &space);
        for (;;) {
            post(model_Protocoldata());
        }
    };
    EXPECT_EXIT(neverTake(), ::testing::KilledBySignal(SIGABRT), "bad_alloc");
}
