// SPDX-License-Identifier: MIT
#pragma once

/// While it exists, the system refuses every new thread of this process, as it does at a limit.
class ThreadRefusal
{
public:
    explicit ThreadRefusal(int after = 0); ///< lets so many start first
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
