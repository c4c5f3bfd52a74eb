// SPDX-License-Identifier: MIT
#include "interrupt.h"

#include "output.h"

#include <csignal>

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
}

Interrupt::~Interrupt()
{
    close(descriptor);
    const sigset_t signals = watched();
    pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
}

bool Interrupt::happened() const
{
    signalfd_siginfo info{};
    pressed = pressed || read(descriptor, &info, sizeof info) == sizeof info;
    return pressed || output::lost();
}
