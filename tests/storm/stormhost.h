// SPDX-License-Identifier: MIT
#pragma once

#include "watchdog.h"

#include <atomic>
#include <random>
#include <thread>

using Random = std::mt19937;

/// A random number, 0 to limit - 1.
inline int below(Random& random, int limit)
{
    return static_cast<int>(random() % static_cast<unsigned>(limit));
}

/// A host that takes what comes off its queues, and keeps their locks and its log for random times
/// while it is rough.
class StormHost
{
public:
    StormHost(Watchdog& watchdog, unsigned seed);
    ~StormHost();
    StormHost(const StormHost&) = delete;
    StormHost& operator=(const StormHost&) = delete;

    static void beRough(bool on);

    /// Whether a reply with this number has come since it was last asked for; of links, the
    /// command code, of the display the third byte.
    static bool hasCome(int link, int tag);
    static void forgetReplies();

    static constexpr int displayLink = 4;     ///< the last; the others are those of ConnType
    static constexpr int firstCommand = 0x20; ///< the command code of link 0

    static long replies(); ///< so far
    static long lines();   ///< of the log so far

private:
    void run();
    void keepALock();
    static void takeReplies();

    Watchdog::Mark& mark;
    Random random;
    std::atomic<bool> goesOn{true};
    std::thread thread;
};
