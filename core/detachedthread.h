// SPDX-License-Identifier: MIT
#pragma once

#include "processend.h"

#include <system_error>
#include <thread>
#include <utility>

/// Starts a thread that nobody joins. The function must own, or share ownership of, everything it
/// touches, and stop for processend. Returns false, with the function not run, when the system
/// refuses the thread.
template <class Function>
[[nodiscard]] bool startDetached(Function&& function) noexcept
{
    processend::watch();
    try {
        std::thread([present = processend::Presence(),
                     run = std::forward<Function>(function)]() mutable {
            run();
        }).detach();
        return true;
    } catch (const std::system_error&) {
        return false;
    } catch (const std::bad_alloc&) {
        return false;
    }
}
