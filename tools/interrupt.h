// SPDX-License-Identifier: MIT
#pragma once

#include <QSocketNotifier>

#include <memory>

/// Turns Ctrl-C and a termination request into a condition that can be asked for, while it exists.
/// To be made before any other thread runs, in the thread whose event loop runs.
class Interrupt
{
public:
    Interrupt();
    ~Interrupt();
    Interrupt(const Interrupt&) = delete;
    Interrupt& operator=(const Interrupt&) = delete;

    bool happened() const { return pressed; }

private:
    int descriptor;
    std::unique_ptr<QSocketNotifier> notifier;
    bool pressed = false;
};
