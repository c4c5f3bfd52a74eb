// SPDX-License-Identifier: MIT
#include "biz_cmdswork.h"
#include "detachedthread.h"
#include "eventually.h"
#include "replyqueue.h"
#include "runtoken.h"
#include "threadrefusal.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <new>

#include <dlfcn.h>
#include <pthread.h>
#include <time.h>

namespace
{

std::atomic<int> detachCalls{0};
thread_local int allocations = -1; // until one fails, once; never if negative

void* allocate(std::size_t size)
{
    return allocations >= 0 && allocations-- == 0 ? nullptr : std::malloc(size);
}

// Processor time that the calling thread has used, ms.
qint64 threadTime()
{
    timespec used{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
    return used.tv_sec * 1000 + used.tv_nsec / 1'000'000;
}

} // namespace

// In place of those of the standard library, in this program and the libraries it loads.
void* operator new(std::size_t size)
{
    void* const memory = allocate(size);
    return memory != nullptr ? memory : throw std::bad_alloc();
}
void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept
{
    return allocate(size);
}
void operator delete(void* memory) noexcept
{
    std::free(memory);
}
void operator delete(void* memory, std::size_t /*size*/) noexcept
{
    std::free(memory);
}

// Takes the place of the C library's function in this program and the libraries it loads.
extern "C" __attribute__((visibility("default"))) int pthread_detach(pthread_t thread) noexcept
{
    ++detachCalls;
    using Detach = int (*)(pthread_t);
    static const auto next = reinterpret_cast<Detach>(dlsym(RTLD_NEXT, "pthread_detach"));
    return next(thread);
}

// Detaching a thread that has started can fail, and then the process ends.
TEST(DetachedThread, IsCreatedDetached)
{
    std::atomic<int> ran{0};
    const auto run = [&ran] {
        pthread_attr_t attributes;
        int state = PTHREAD_CREATE_JOINABLE;
        if (pthread_getattr_np(pthread_self(), &attributes) == 0) {
            pthread_attr_getdetachstate(&attributes, &state);
            pthread_attr_destroy(&attributes);
        }
        ran += state == PTHREAD_CREATE_DETACHED ? 1 : 0;
    };
    for (int i = 0; i < 500; ++i) {
        ASSERT_TRUE(eventually([&run] { return startDetached(run); }));
    }
    EXPECT_TRUE(replyqueue::start());
    const auto work = std::make_shared<biz_CMDSWork>();
    replyqueue::clearElsewhere(work);
    EXPECT_TRUE(eventually([&] { return ran == 500 && work.use_count() == 1; }));
    EXPECT_EQ(detachCalls, 0);
}

TEST(DetachedThread, GivesUpWhatItOwnsWhenItEndsOrIsRefused)
{
    const auto owned = std::make_shared<int>(7);
    std::atomic<int> seen{0};
    EXPECT_TRUE(startDetached([owned, &seen] { seen = *owned; }));
    EXPECT_TRUE(eventually([&] { return owned.use_count() == 1; }));
    EXPECT_EQ(seen, 7);
    const ThreadRefusal refusal;
    EXPECT_FALSE(startDetached([owned, &seen] { seen = 8; }));
    EXPECT_EQ(owned.use_count(), 1);
    EXPECT_EQ(seen, 7);
}

TEST(RunToken, IsClearedIfItsThreadIsRefused)
{
    RunToken token;
    EXPECT_FALSE(token.isSet());
    const ThreadRefusal refusal;
    EXPECT_FALSE(token.start([] {}));
    EXPECT_FALSE(token.isSet());
    EXPECT_FALSE(token.isRunning());
}

TEST(RunToken, WaitingForAWorkerCostsNoProcessor)
{
    RunToken token;
    token.run([&token] {
        const qint64 before = threadTime();
        EXPECT_FALSE(token.awaitEnd(std::chrono::milliseconds(300)));
        EXPECT_LT(threadTime() - before, 100);
    });
}

TEST(DetachedThread, MemoryThatIsRefusedRefusesTheThread)
{
    processend::watch(); // what it makes once is not refused
    const auto owned = std::make_shared<int>(7);
    std::atomic<int> ran{0};
    int refused = 0;
    for (bool isStarted = false; !isStarted; refused += isStarted ? 0 : 1) {
        allocations = refused;
        isStarted = startDetached([owned, &ran] { ++ran; });
        allocations = -1;
        ASSERT_LT(refused, 10);
    }
    EXPECT_GE(refused, 2); // the function, and what the thread gets
    EXPECT_TRUE(eventually([&] { return owned.use_count() == 1; }));
    EXPECT_EQ(ran, 1);
}
