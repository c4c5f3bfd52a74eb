// SPDX-License-Identifier: MIT
#pragma once

#include <atomic>

/// What hidapi does with its error texts, which it keeps without a lock.
namespace slowerrortexts
{

extern std::atomic<bool> isOn; ///< makes every text take 200 µs, between freeing the one before it
                               ///< and storing it
extern std::atomic<int> count; ///< texts made so while isOn
extern std::atomic<int> mostBeside; ///< most of them that were being made beside another

} // namespace slowerrortexts
