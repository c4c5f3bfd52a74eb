// SPDX-License-Identifier: MIT
#pragma once

#include <QElapsedTimer>

#include <algorithm>

/// How many milliseconds a function takes.
template <class Function>
qint64 elapsed(Function&& function)
{
    QElapsedTimer timer;
    timer.start();
    function();
    return timer.elapsed();
}

/// The first of some times that is below the limit, or else the shortest of ten: a busy machine
/// takes longer now and then, what waits in vain does so each time.
template <class Measure>
qint64 shortest(qint64 limit, Measure&& measure)
{
    constexpr int tries = 10;
    qint64 best = measure();
    for (int i = 1; i < tries && best >= limit; ++i) {
        best = std::min(best, measure());
    }
    return best;
}
