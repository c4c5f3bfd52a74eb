// SPDX-License-Identifier: MIT
#pragma once

#include <QCoreApplication>

#include <chrono>
#include <thread>

/// Runs the event loop until the condition holds. False if it does not within the limit, which is
/// generous: no outcome depends on how long things take.
template <class Condition>
bool eventually(Condition&& condition, std::chrono::milliseconds limit = std::chrono::seconds(90))
{
    const auto end = std::chrono::steady_clock::now() + limit;
    for (;;) {
        QCoreApplication::processEvents();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        if (condition()) {
            return true;
        }
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
}
