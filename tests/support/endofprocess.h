// SPDX-License-Identifier: MIT
#pragma once

#include "processend.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <functional>

#include <dlfcn.h>
#include <time.h>
#include <unistd.h>

/// Writes the counters of a coverage build, which it alone has.
extern "C" __attribute__((weak)) void __gcov_dump(); // NOLINT(bugprone-reserved-identifier)

/// The end of a process in a death test, in whose program it replaces the C library's nanosleep.
/// The looks that the end of the process takes at its threads are counted.
namespace endofprocess
{

inline std::function<bool()>& afterwards()
{
    static auto* const instance = new std::function<bool()>;
    return *instance;
}

inline std::atomic<int> looksBefore{0};          ///< until over
inline std::atomic<int> looksBehind{0};          ///< from then on
inline std::atomic<std::int64_t> longestLook{0}; ///< ns
inline std::atomic<pid_t> ending{0};             ///< the thread that ends the process
inline std::atomic<bool> atOnce{false};          ///< a look takes no time

/// If set, a look takes until this is true, and lookPause: a busy machine gives threads no time for
/// long.
inline std::function<bool()>& awaited()
{
    static auto* const instance = new std::function<bool()>;
    return *instance;
}

/// Longer for a thread that has to end yet when what is awaited has come.
inline std::atomic<useconds_t> lookPause{5'000}; // us
constexpr useconds_t longLookPause = 100'000;

/// If set, called with each pause of another thread, before it.
inline std::function<void(const timespec&)>& held()
{
    static auto* const instance = new std::function<void(const timespec&)>;
    return *instance;
}

/// Runs \a before, ends the process, and runs \a after behind its end: code 0 if that is true.
[[noreturn]] inline void endWith(const std::function<void()>& before,
                                 const std::function<bool()>& after)
{
    afterwards() = after;
    // Registered before the watch, so it runs after it.
    std::atexit([] {
        ending = 0;
        const bool isRight = afterwards()() && processend::over();
        if (__gcov_dump != nullptr) {
            __gcov_dump();
        }
        _exit(isRight ? 0 : 1);
    });
    processend::watch();
    before();
    ending = gettid();
    std::exit(2);
}

inline bool eventuallyTrue(const std::function<bool()>& condition)
{
    for (int i = 0; i < 30'000; ++i) {
        if (condition()) {
            return true;
        }
        usleep(1000);
    }
    return false;
}

} // namespace endofprocess

// NOLINTNEXTLINE(misc-definitions-in-headers): a program has one source that includes it
extern "C" __attribute__((visibility("default"))) int nanosleep(const timespec* time,
                                                                timespec* rest)
{
    using Sleep = int (*)(const timespec*, timespec*);
    static const auto next = reinterpret_cast<Sleep>(dlsym(RTLD_NEXT, "nanosleep"));
    if (endofprocess::ending == gettid()) {
        ++(processend::over() ? endofprocess::looksBehind : endofprocess::looksBefore);
        endofprocess::longestLook = std::max(endofprocess::longestLook.load(),
                                             time->tv_sec * 1'000'000'000 + time->tv_nsec);
        if (endofprocess::atOnce) {
            return 0;
        }
        if (endofprocess::awaited()) {
            (void)endofprocess::eventuallyTrue(endofprocess::awaited());
            return usleep(endofprocess::lookPause);
        }
    }
    if (endofprocess::ending != gettid() && endofprocess::held()) {
        endofprocess::held()(*time);
    }
    return next(time, rest);
}
