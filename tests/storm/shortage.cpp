// SPDX-License-Identifier: MIT
#include "shortage.h"

#include <sys/eventfd.h>
#include <sys/resource.h>
#include <unistd.h>

namespace
{

constexpr rlim_t descriptorLimit = 512;
constexpr int stepsBetween = 300; // a few seconds
constexpr int shortestMs = 200;
constexpr int spanMs = 2500;

#ifdef __SANITIZE_ADDRESS__ // its checks of types look at memory through a pipe, or report it
constexpr bool takesDescriptors = false;
#else
constexpr bool takesDescriptors = true;
#endif

} // namespace

Shortage::Shortage()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = descriptorLimit;
        (void)setrlimit(RLIMIT_NOFILE, &limit);
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
    if (below(random, 2) == 0 || !takesDescriptors) {
        refusal = std::make_unique<ThreadRefusal>();
    } else {
        takeDescriptors();
    }
}

void Shortage::end()
{
    refusal.reset();
    for (const int descriptor : taken) {
        ::close(descriptor);
    }
    taken.clear();
}

void Shortage::takeDescriptors()
{
    for (int descriptor = 0; (descriptor = eventfd(0, EFD_CLOEXEC)) >= 0;) {
        taken.push_back(descriptor);
    }
}
