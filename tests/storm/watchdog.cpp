// SPDX-License-Identifier: MIT
#include "watchdog.h"

#include <cstdio>
#include <cstdlib>

#include <sys/prctl.h>

namespace
{

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds lookEvery{500};

// Symbols and lines of code, which a stack that the process takes of itself does not have.
void showStacks()
{
    (void)prctl(PR_SET_PTRACER, PR_SET_PTRACER_ANY);
    const std::string command = "gdb -p " + std::to_string(getpid()) +
                                " -batch -nx -ex 'set print frame-arguments none'"
                                " -ex 'thread apply all backtrace 25' 1>&2 2>/dev/null";
    if (std::system(("command -v gdb >/dev/null && " + command).c_str()) != 0) {
        std::fprintf(stderr, "storm: no stacks, gdb is missing or may not look\n");
    }
}

} // namespace

void Watchdog::Mark::now(const char* what)
{
    doing = what;
    since = Clock::now().time_since_epoch().count();
}

Watchdog::Watchdog(std::chrono::milliseconds patience) : limit(patience), thread([this] { run(); })
{
}

Watchdog::~Watchdog()
{
    {
        const std::lock_guard guard(lock);
        ends = true;
    }
    ending.notify_all();
    thread.join();
}

Watchdog::Mark& Watchdog::add(const std::string& name)
{
    const std::lock_guard guard(lock);
    marks.emplace_back(name).now("begin");
    return marks.back();
}

void Watchdog::run()
{
    std::unique_lock guard(lock);
    while (!ending.wait_for(guard, lookEvery, [this] { return ends; })) {
        look();
    }
}

void Watchdog::look()
{
    for (const Mark& mark : marks) {
        const auto busy = Clock::now().time_since_epoch() - Clock::duration(mark.since.load());
        if (mark.id != 0 && busy > limit) {
            std::fprintf(stderr, "storm: %s, thread %d, is stuck in \"%s\" for %.1f s\n",
                         mark.name.c_str(), static_cast<int>(mark.id), mark.doing.load(),
                         std::chrono::duration<double>(busy).count());
            showStacks();
            _exit(3);
        }
    }
}
