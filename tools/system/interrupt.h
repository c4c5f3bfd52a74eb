// SPDX-License-Identifier: MIT
#pragma once

/// Turns Ctrl-C, a termination request and a terminal that closes into a condition that can be
/// asked for, while it exists: no event loop needs to run, and output that blocks ends. That nobody
/// reads the output any more is one, too. To be made before any other thread runs.
class Interrupt
{
public:
    Interrupt();
    ~Interrupt();
    Interrupt(const Interrupt&) = delete;
    Interrupt& operator=(const Interrupt&) = delete;

    bool happened() const;

private:
    int descriptor;
};
