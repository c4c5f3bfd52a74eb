// SPDX-License-Identifier: MIT
#pragma once

#include "detachedthread.h"
#include "processend.h"

#include <atomic>
#include <chrono>
#include <thread>
#include <utility>

/// How every worker thread is stopped: a token that the worker shares with whoever stops it. The
/// worker looks at goesOn before each step; the stopper clears the flag and looks at isRunning. The
/// end of the process stops every worker. Any thread may call any operation; none blocks except
/// run and awaitEnd.
class RunToken
{
public:
    explicit RunToken(bool on = false) : wanted(on) {}

    /// The run flag: clearing it asks the worker to end.
    void set(bool on) { wanted.store(on, std::memory_order_relaxed); }
    bool isSet() const { return wanted.load(std::memory_order_relaxed); }

    /// Whether the worker is to take another step.
    bool goesOn() const { return isSet() && !processend::begun(); }

    /// Whether a worker is on its way or running. What the worker has written is visible once this
    /// is false.
    bool isRunning() const { return running.load(std::memory_order_acquire); }

    /// Sets the flag and starts a detached thread. \a worker shares ownership of this token and
    /// calls run. False, with nothing running, if the system refuses the thread.
    template <class Worker>
    [[nodiscard]] bool start(Worker&& worker)
    {
        // Before the thread starts: a stop that comes before its first step must wait for it.
        running.store(true, std::memory_order_relaxed);
        set(true);
        if (startDetached(std::forward<Worker>(worker))) {
            return true;
        }
        set(false);
        running.store(false, std::memory_order_release);
        return false;
    }

    /// Runs the worker's loop on the calling thread. The end of \a loop is its last access.
    template <class Loop>
    void run(Loop&& loop)
    {
        running.store(true, std::memory_order_relaxed);
        std::forward<Loop>(loop)();
        running.store(false, std::memory_order_release);
    }

    /// Looks every 5 ms whether the worker has ended, for \a limit at most. True if it has.
    bool awaitEnd(std::chrono::milliseconds limit) const
    {
        const auto end = std::chrono::steady_clock::now() + limit;
        while (isRunning()) {
            if (std::chrono::steady_clock::now() >= end) {
                return false;
            }
            std::this_thread::sleep_for(endPoll);
        }
        return true;
    }

private:
    static constexpr std::chrono::milliseconds endPoll{5};

    std::atomic<bool> wanted;
    std::atomic<bool> running{false};
};
