// SPDX-License-Identifier: MIT
#pragma once

#include <chrono>
#include <functional>

/// Turns Ctrl-C, a termination request and a closed terminal into a condition that can be asked
/// for, while it exists. No event loop needs to run, and output that blocks ends. Lost output is
/// such a condition, too. To be made before any other thread runs.
class Interrupt
{
public:
    Interrupt();
    ~Interrupt();
    Interrupt(const Interrupt&) = delete;
    Interrupt& operator=(const Interrupt&) = delete;

    bool happened() const;

    /// Readable from when a request came.
    int readable() const { return descriptor; }

private:
    int descriptor;
};

/// How a wait ended.
enum class WaitEnd { Done, TimeOut, Interrupted };

constexpr std::chrono::milliseconds forEver{-1};

/// Runs the event loop until the condition holds, the limit is over or the person interrupts. The
/// condition is asked whenever the loop has nothing more to do, every 2 ms at least, and once more
/// after the limit.
WaitEnd waitFor(const std::function<bool()>& condition, std::chrono::milliseconds limit,
                const Interrupt& interrupt);
