// SPDX-License-Identifier: MIT
#pragma once

#include "stormhost.h"
#include "threadrefusal.h"

#include <chrono>
#include <memory>
#include <vector>

/// Times in which the system refuses every new thread, or every new descriptor, of this process.
class Shortage
{
public:
    Shortage();
    ~Shortage() { end(); }
    Shortage(const Shortage&) = delete;
    Shortage& operator=(const Shortage&) = delete;

    /// Now and then one begins, and ends seconds later.
    void pass(Random& random);
    void end();
    bool isOn() const { return refusal != nullptr || !taken.empty(); }
    long count() const { return begun; } ///< so far

private:
    using Clock = std::chrono::steady_clock;

    void takeDescriptors();

    Clock::time_point until;
    std::unique_ptr<ThreadRefusal> refusal;
    std::vector<int> taken; // all descriptors that were left
    long begun = 0;
};
