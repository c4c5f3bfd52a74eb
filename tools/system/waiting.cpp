// SPDX-License-Identifier: MIT
#include "waiting.h"

#include "output.h"

#include <QAbstractEventDispatcher>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QTimer>

#include <csignal>

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace
{

constexpr std::chrono::milliseconds pollInterval{2};

sigset_t watched()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    struct sigaction hangUp {
    };
    sigaction(SIGHUP, nullptr, &hangUp);
    if (hangUp.sa_handler != SIG_IGN) { // nohup ignores it; blocked, it would come nevertheless
        sigaddset(&signals, SIGHUP);
    }
    return signals;
}

} // namespace

Interrupt::Interrupt()
{
    const sigset_t signals = watched();
    pthread_sigmask(SIG_BLOCK, &signals, nullptr);
    descriptor = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
    output::stopAt(descriptor);
}

Interrupt::~Interrupt()
{
    output::stopAt(-1);
    for (signalfd_siginfo taken{}; read(descriptor, &taken, sizeof taken) == sizeof taken;) {
    }
    close(descriptor);
    const sigset_t signals = watched();
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

// The signal stays pending: output watches the descriptor, too.
bool Interrupt::happened() const
{
    pollfd pending{descriptor, POLLIN, 0};
    return poll(&pending, 1, 0) == 1 || output::lost();
}

WaitEnd waitFor(const std::function<bool()>& condition, std::chrono::milliseconds limit,
                const Interrupt& interrupt)
{
    QEventLoop loop;
    QTimer poll;
    QElapsedTimer clock;
    WaitEnd end = WaitEnd::Done;
    bool isOver = false;
    clock.start();
    poll.setTimerType(Qt::PreciseTimer);
    const auto look = [&] {
        if (isOver) { // the loop may go round once more
            return;
        }
        const bool late = limit != forEver && clock.hasExpired(limit.count());
        const bool done = condition();
        end = done ? WaitEnd::Done : interrupt.happened() ? WaitEnd::Interrupted : WaitEnd::TimeOut;
        isOver = late || end != WaitEnd::TimeOut;
        if (isOver) {
            loop.quit();
        }
    };
    QObject::connect(&poll, &QTimer::timeout, &loop, look);
    QObject::connect(QAbstractEventDispatcher::instance(), &QAbstractEventDispatcher::aboutToBlock,
                     &loop, look);
    poll.start(pollInterval);
    loop.exec();
    return end;
}
