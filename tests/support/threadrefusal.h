// SPDX-License-Identifier: MIT
#pragma once

#include <limits>

/// While it exists, the system refuses every new thread of this process, as it does at a limit.
class ThreadRefusal
{
public:
    /// Lets \a after threads start first, and refuses \a count then.
    explicit ThreadRefusal(int after = 0, int count = std::numeric_limits<int>::max());
    ~ThreadRefusal();
    ThreadRefusal(const ThreadRefusal&) = delete;
    ThreadRefusal& operator=(const ThreadRefusal&) = delete;

    static int refused(); ///< how many threads have been refused so far in this process
};

/// While it exists, new threads of this process get no time, as on a busy machine.
class ThreadHold
{
public:
    ThreadHold();
    ~ThreadHold();
    ThreadHold(const ThreadHold&) = delete;
    ThreadHold& operator=(const ThreadHold&) = delete;
};
