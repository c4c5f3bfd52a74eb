// SPDX-License-Identifier: MIT
#pragma once

#include "eventually.h"

#include <chrono>

/// A stream link gives a block up that has not come within 600 ms. Where a busy machine gives the
/// parts of a reply too little of that, they come again, some times.
///
/// \a deliver sends the parts, \a hasCome says that all of them have been handed over, and \a
/// isLost that the block was given up. False if it was given up too early, if nothing happens, or
/// if it is never in time.
template <class Deliver, class HasCome, class IsLost>
bool blockComesInTime(Deliver&& deliver, HasCome&& hasCome, IsLost&& isLost)
{
    constexpr std::chrono::milliseconds patience{600};
    for (int attempt = 0; attempt < 30; ++attempt) {
        const auto start = std::chrono::steady_clock::now();
        deliver();
        if (!eventually([&] { return isLost() || hasCome(); })) {
            return false;
        }
        if (!isLost()) {
            return true;
        }
        if (std::chrono::steady_clock::now() - start < patience) {
            return false;
        }
    }
    return false;
}
