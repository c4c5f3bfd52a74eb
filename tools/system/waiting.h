// SPDX-License-Identifier: MIT
#pragma once

#include "interrupt.h"

#include <QElapsedTimer>
#include <QEventLoop>
#include <QTimer>

#include <chrono>
#include <functional>

/// How a wait ended.
enum class WaitEnd { Done, TimeOut, Interrupted };

constexpr std::chrono::milliseconds pollInterval{2};
constexpr std::chrono::milliseconds forEver{-1};

/// Runs the event loop until the condition, asked every 2 ms, holds, the limit is over or the
/// person has had enough. A limit that is over lets the condition be asked once more.
inline WaitEnd waitFor(const std::function<bool()>& condition, std::chrono::milliseconds limit,
                       const Interrupt& interrupt)
{
    QEventLoop loop;
    QTimer poll;
    QElapsedTimer clock;
    WaitEnd end = WaitEnd::Done;
    clock.start();
    const auto look = [&] {
        const bool over = limit != forEver && clock.hasExpired(limit.count());
        if (condition()) {
            end = WaitEnd::Done;
        } else if (interrupt.happened()) {
            end = WaitEnd::Interrupted;
        } else if (over) {
            end = WaitEnd::TimeOut;
        } else {
            return;
        }
        loop.quit();
    };
    poll.setTimerType(Qt::PreciseTimer);
    QObject::connect(&poll, &QTimer::timeout, &loop, look);
    poll.start(pollInterval);
    loop.exec();
    return end;
}
