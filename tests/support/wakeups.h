// SPDX-License-Identifier: MIT
#pragma once

#include <QAbstractEventDispatcher>
#include <QEventLoop>
#include <QTimer>

/// How often the event loop of this thread wakes up in 300 ms. One that runs all the time does so
/// thousands of times, on a busy machine, too.
inline int wakeUps()
{
    QEventLoop loop;
    int count = 0;
    QObject::connect(QAbstractEventDispatcher::instance(), &QAbstractEventDispatcher::awake, &loop,
                     [&count] { ++count; });
    QTimer::singleShot(300, &loop, &QEventLoop::quit);
    loop.exec();
    return count;
}
