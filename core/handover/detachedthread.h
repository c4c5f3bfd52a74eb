// SPDX-License-Identifier: MIT
#pragma once

#include "processend.h"

#include <functional>
#include <new>
#include <utility>

namespace detachedthread
{

/// Starts a thread that nobody joins and that the end of the process does not wait for. False, with
/// the function not run, when the system refuses it. Any thread; does not block.
[[nodiscard]] bool create(std::function<void()> function) noexcept;

} // namespace detachedthread

/// Starts a thread that nobody joins. The function must be copyable, must own, or share ownership
/// of, everything it touches, and must stop for processend. Returns false, with the function not
/// run, when the system refuses the thread. Any thread; does not block.
template <class Function>
[[nodiscard]] bool startDetached(Function&& function) noexcept
{
    try {
        return detachedthread::create(
            [present = processend::Presence(), run = std::forward<Function>(function)]() mutable {
                run();
            });
    } catch (const std::bad_alloc&) {
        return false;
    }
}
