// SPDX-License-Identifier: MIT
#pragma once

#include "stormhost.h"
#include "threadrefusal.h"

#include <chrono>
#include <memory>
#include <vector>

#include <sys/resource.h>

/// Times in which the system refuses every new thread, or every new descriptor, of this process.
class Shortage
{
public:
    Shortage();
    ~Shortage();
    Shortage(const Shortage&) = delete;
    Shortage& operator=(const Shortage&) = delete;

    /// Now and then one begins, and ends seconds later.
    void pass(Random& random);
    void end();
    bool isOn() const { return refusal != nullptr || refusesDescriptors; }
    long count() const { return begun; } ///< so far

private:
    using Clock = std::chrono::steady_clock;

    void refuseDescriptors(bool refuses);

    Clock::time_point until;
    std::unique_ptr<ThreadRefusal> refusal;
    bool refusesDescriptors = false;
    rlim_t usual = 0;      // the limit at other times
    std::vector<int> held; // all below the limit of a shortage
    long begun = 0;
};
