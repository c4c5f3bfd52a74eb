// SPDX-License-Identifier: MIT
#include "shortage.h"

#include <sys/eventfd.h>
#include <unistd.h>

namespace
{

constexpr int lowest = 128; // poll refuses to look at more descriptors than a process may have
constexpr int stepsBetween = 300; // a few seconds
constexpr int shortestMs = 200;
constexpr int spanMs = 2500;

#ifdef __SANITIZE_ADDRESS__ // its checks of types look at memory through a pipe, or report it
constexpr bool mayRefuseDescriptors = false;
#else
constexpr bool mayRefuseDescriptors = true;
#endif

} // namespace

// What is opened from now on has a number that is refused in a shortage, whatever else is closed.
Shortage::Shortage()
{
    int descriptor = 0;
    while ((descriptor = eventfd(0, EFD_CLOEXEC)) >= 0 && descriptor < lowest) {
        held.push_back(descriptor);
    }
    ::close(descriptor);
}

Shortage::~Shortage()
{
    end();
    for (const int descriptor : held) {
        ::close(descriptor);
    }
}

void Shortage::pass(Random& random)
{
    if (isOn()) {
        if (Clock::now() >= until) {
            end();
        }
        return;
    }
    if (below(random, stepsBetween) != 0) {
        return;
    }
    ++begun;
    until = Clock::now() + std::chrono::milliseconds(shortestMs + below(random, spanMs));
    if (below(random, 2) == 0 || !mayRefuseDescriptors) {
        refusal = std::make_unique<ThreadRefusal>();
    } else {
        refuseDescriptors(true);
    }
}

void Shortage::end()
{
    refusal.reset();
    refuseDescriptors(false);
}

void Shortage::refuseDescriptors(bool refuses)
{
    rlimit limit{};
    if (refuses != refusesDescriptors && getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        usual = refuses ? limit.rlim_cur : usual;
        limit.rlim_cur = refuses ? rlim_t{lowest} : usual;
        refusesDescriptors = setrlimit(RLIMIT_NOFILE, &limit) == 0 && refuses;
    }
}
