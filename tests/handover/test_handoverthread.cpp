// SPDX-License-Identifier: MIT
#include "endofprocess.h"
#include "eventually.h"
#include "handoverthread.h"
#include "threadrefusal.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace
{

std::atomic<int> mayHandOn{0}; // so many batches
std::mutex handedOnLock;
std::vector<int> handedOn;

void hold(std::deque<int>& batch)
{
    while (mayHandOn == 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    --mayHandOn;
    const std::lock_guard lock(handedOnLock);
    handedOn.insert(handedOn.end(), batch.begin(), batch.end());
}

std::size_t countHandedOn()
{
    const std::lock_guard lock(handedOnLock);
    return handedOn.size();
}

// Never destroyed, as the library's.
HandOverThread<int>& queue()
{
    static auto* const instance = new HandOverThread<int>(hold);
    return *instance;
}

} // namespace

TEST(HandOverThread, CountsAnItemUntilItIsHandedOn)
{
    ASSERT_TRUE(queue().start());
    queue().put(0);
    EXPECT_EQ(queue().size(), 1U);
    std::this_thread::sleep_for(std::chrono::milliseconds(20)); // or it is not at work yet
    queue().put(1);
    queue().put(2);
    EXPECT_EQ(queue().size(), 3U);
    ++mayHandOn;
    ASSERT_TRUE(eventually([] { return countHandedOn() > 0; }));
    const std::size_t first = countHandedOn();
    EXPECT_TRUE(eventually([first] { return queue().size() == 3 - first; }));
    if (first < 3) {
        ++mayHandOn;
    }
    ASSERT_TRUE(eventually([] { return countHandedOn() == 3; }));
    EXPECT_EQ(handedOn, (std::vector<int>{0, 1, 2}));
    EXPECT_TRUE(eventually([] { return queue().size() == 0; }));
}

TEST(HandOverThread, TheEndOfTheProcessWaitsForWhatIsPending)
{
    static std::atomic<bool> isDone{false};
    static auto* const late = new HandOverThread<int>([](std::deque<int>&) {
        while (endofprocess::looksBefore == 0) {
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        isDone = true;
    });
    const auto putLate = [] {
        endofprocess::awaited() = [] { return isDone.load(); };
        late->put(1);
    };
    EXPECT_EXIT(endofprocess::endWith(putLate, [] { return isDone.load(); }),
                ::testing::ExitedWithCode(0), "");
}

TEST(HandOverThread, TheEndOfTheProcessWaitsForItemsThatAreDestroyed)
{
    static std::atomic<bool> isBegun{false};
    static std::atomic<bool> isDestroyed{false};
    struct Item {
        ~Item()
        {
            isBegun = true;
            while (endofprocess::looksBefore == 0) {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
            isDestroyed = true;
        }
    };
    using Items = std::deque<std::shared_ptr<Item>>;
    static auto* const queue = new HandOverThread<Items::value_type>([](Items&) {});
    const auto putOne = [] {
        endofprocess::awaited() = [] { return isDestroyed.load(); };
        queue->put(std::make_shared<Item>());
        (void)endofprocess::eventuallyTrue([] { return isBegun.load(); });
    };
    EXPECT_EXIT(endofprocess::endWith(putOne, [] { return isDestroyed.load(); }),
                ::testing::ExitedWithCode(0), "");
}

TEST(HandOverThread, TheEndOfTheProcessDoesNotWaitForWhatIsDone)
{
    const auto handOnAll = [] {
        auto* const done = new HandOverThread<int>([](std::deque<int>&) {});
        done->put(1);
        (void)endofprocess::eventuallyTrue([done] { return done->size() == 0; });
        usleep(50'000);
    };
    EXPECT_EXIT(endofprocess::endWith(handOnAll, [] { return endofprocess::looksBefore < 200; }),
                ::testing::ExitedWithCode(0), "");
}

TEST(HandOverThread, RefusedItsThreadItAsksAgainWithTheNextItem)
{
    mayHandOn = 2;
    handedOn.clear();
    static auto* const refused = new HandOverThread<int>(hold);
    {
        const ThreadRefusal refusal;
        EXPECT_FALSE(refused->start());
        refused->put(0);
    }
    EXPECT_EQ(refused->size(), 1U);
    refused->put(1);
    ASSERT_TRUE(eventually([] { return countHandedOn() == 2; }));
    EXPECT_EQ(handedOn, (std::vector<int>{0, 1}));
}

TEST(HandOverThread, HoweverOftenItIsRefusedItAsksAgain)
{
    constexpr int items = 5;
    mayHandOn = items;
    handedOn.clear();
    static auto* const refused = new HandOverThread<int>(hold);
    {
        const ThreadRefusal refusal;
        for (int item = 0; item < items - 1; ++item) {
            refused->put(item);
            EXPECT_EQ(ThreadRefusal::refused(), 2 * item + 1);
            EXPECT_FALSE(refused->start());
            EXPECT_EQ(ThreadRefusal::refused(), 2 * item + 2);
        }
    }
    EXPECT_EQ(refused->size(), std::size_t{items - 1});
    refused->put(items - 1);
    ASSERT_TRUE(eventually([] { return countHandedOn() == items; }));
    EXPECT_EQ(handedOn, (std::vector<int>{0, 1, 2, 3, 4}));
}
