// SPDX-License-Identifier: MIT
#include "threadrefusal.h"

#include <atomic>
#include <cerrno>
#include <limits>

#include <dlfcn.h>
#include <pthread.h>

namespace
{

constexpr int noLimit = std::numeric_limits<int>::max();

std::atomic<int> remaining{noLimit}; // threads until they are refused
std::atomic<int> refusals{0};

using Create = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);

} // namespace

// Takes the place of the C library's function in this program and the libraries it loads.
extern "C" __attribute__((visibility("default"))) int
pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*),
               void* argument) noexcept
{
    static const auto next = reinterpret_cast<Create>(dlsym(RTLD_NEXT, "pthread_create"));
    if (remaining != noLimit && remaining-- <= 0) {
        ++refusals;
        return EAGAIN;
    }
    return next(thread, attributes, start, argument);
}

ThreadRefusal::ThreadRefusal(int after)
{
    remaining = after;
}

ThreadRefusal::~ThreadRefusal()
{
    remaining = noLimit;
}

int ThreadRefusal::refused()
{
    return refusals;
}
