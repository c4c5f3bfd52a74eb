// SPDX-License-Identifier: MIT
#pragma once

#include <QSocketNotifier>

#include <memory>

/// Turns Ctrl-C, a termination request and a terminal that closes into a condition that can be
/// asked for, while it exists. That nobody reads the output any more is one, too. To be made before
/// any other thread runs, in the thread whose event loop runs.
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
    std::unique_ptr<QSocketNotifier> notifier;
    bool pressed = false;
};
