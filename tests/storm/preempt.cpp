// SPDX-License-Identifier: MIT
// Runs a command beside programs that take the processors away at random:
//
//   preempt COMMAND [ARGUMENT…]
//
// They run at a real-time priority for up to 10 ms at a time, a third of all time; where that is
// not allowed, many of them at different nice levels. Its code is that of the command.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <random>
#include <thread>
#include <vector>

#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

using Clock = std::chrono::steady_clock;
using std::chrono::microseconds;

constexpr unsigned longestBurst = 10'000; // us
constexpr unsigned longestPause = 20'000; // us
constexpr int niceTakers = 8;

bool mayPreempt()
{
    const sched_param priority{1};
    const bool may = sched_setscheduler(0, SCHED_FIFO, &priority) == 0;
    const sched_param none{0};
    (void)sched_setscheduler(0, SCHED_OTHER, &none);
    return may;
}

[[noreturn]] void take(int number, bool atOnce)
{
    (void)prctl(PR_SET_PDEATHSIG, SIGKILL);
    const sched_param priority{1};
    if (!atOnce || sched_setscheduler(0, SCHED_FIFO, &priority) != 0) {
        (void)setpriority(PRIO_PROCESS, 0, 2 * number);
    }
    std::minstd_rand random(static_cast<unsigned>(number + 1));
    for (;;) {
        std::this_thread::sleep_for(microseconds(random() % longestPause));
        const auto end = Clock::now() + microseconds(random() % longestBurst);
        while (Clock::now() < end) {
        }
    }
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2) {
        std::fprintf(stderr, "usage: preempt COMMAND [ARGUMENT...]\n");
        return 2;
    }
    const bool atOnce = mayPreempt();
    const int count =
        atOnce ? static_cast<int>(std::max(1U, std::thread::hardware_concurrency())) : niceTakers;
    std::fprintf(stderr, "preempt: %d takers, %s\n", count,
                 atOnce ? "at a real-time priority" : "at nice levels: real time is not allowed");
    std::vector<pid_t> takers;
    for (int i = 0; i < count; ++i) {
        const pid_t taker = fork();
        if (taker == 0) {
            take(i, atOnce);
        }
        takers.push_back(taker);
    }
    const pid_t command = fork();
    if (command == 0) {
        execvp(argv[1], argv + 1);
        std::perror(argv[1]);
        _exit(127);
    }
    int status = 0;
    (void)waitpid(command, &status, 0);
    for (const pid_t taker : takers) {
        if (taker > 0) {
            (void)kill(taker, SIGKILL);
            (void)waitpid(taker, nullptr, 0);
        }
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}
