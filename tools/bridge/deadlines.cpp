// SPDX-License-Identifier: MIT
#include "deadlines.h"

#include <algorithm>

Deadlines::Deadlines(std::size_t count) : times(count, -1)
{
    clock.start();
    timer.setSingleShot(true);
    timer.setTimerType(Qt::PreciseTimer);
    connect(&timer, &QTimer::timeout, this, &Deadlines::look);
}

// The timer goes off at the earliest deadline or before: most are cleared long before they come.
void Deadlines::set(std::size_t thing, qint64 ms)
{
    const qint64 wait = ms + 1; // the clock's millisecond has begun already
    clear(thing);
    times[thing] = clock.elapsed() + wait;
    all.emplace(times[thing], thing);
    if (!timer.isActive() || timer.remainingTime() > wait) {
        timer.start(static_cast<int>(wait));
    }
}

void Deadlines::clear(std::size_t thing)
{
    if (times[thing] >= 0) {
        all.erase({times[thing], thing});
        times[thing] = -1;
    }
}

void Deadlines::look()
{
    while (!all.empty() && all.begin()->first <= clock.elapsed()) {
        const std::size_t thing = all.begin()->second;
        clear(thing);
        Q_EMIT expired(thing);
    }
    if (!all.empty()) {
        timer.start(static_cast<int>(std::max<qint64>(all.begin()->first - clock.elapsed(), 1)));
    }
}
