// SPDX-License-Identifier: MIT
#include "interrupt.h"

#include "output.h"

#include <csignal>

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

namespace
{

sigset_t watched()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    struct sigaction hangUp {
    };
    sigaction(SIGHUP, nullptr, &hangUp);
    if (hangUp.sa_handler != SIG_IGN) { // as nohup has it: blocked, it would come nevertheless
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

// The signal stays where it is: whoever else watches the descriptor is to see it, too.
bool Interrupt::happened() const
{
    pollfd pending{descriptor, POLLIN, 0};
    return poll(&pending, 1, 0) == 1 || output::lost();
}
