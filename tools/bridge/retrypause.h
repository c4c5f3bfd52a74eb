// SPDX-License-Identifier: MIT
#pragma once

#include <QElapsedTimer>

#include <algorithm>
#include <chrono>
#include <random>

/// How long to wait before something that was lost is tried again: twice as long each time, up to a
/// bound, and never as long as others wait who lost it in the same moment.
class RetryPause
{
public:
    void succeeded() { since.start(); }

    /// The next one. What worked for long begins anew with the shortest; what another one takes
    /// away again and again does not.
    std::chrono::milliseconds next()
    {
        const bool wasGood =
            since.isValid() && since.hasExpired(std::max(goodTime, 4 * pause).count());
        since.invalidate();
        pause = wasGood ? shortest : std::clamp(2 * pause, shortest, longest);
        std::uniform_int_distribution<qint64> jitter(pause.count() / 2, pause.count());
        return std::chrono::milliseconds(jitter(random));
    }

private:
    using Time = std::chrono::milliseconds;
    static constexpr Time shortest{250};
    static constexpr Time longest{30'000};
    static constexpr Time goodTime{5'000};

    Time pause{0};
    QElapsedTimer since;
    std::minstd_rand random{std::random_device{}()};
};
