// SPDX-License-Identifier: MIT
#include "threadrefusal.h"

#include <atomic>
#include <cerrno>

#include <dlfcn.h>
#include <pthread.h>

namespace
{

std::atomic<bool> refusing{false};
std::atomic<int> refusals{0};

using Create = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);

} // namespace

// Takes the place of the C library's function in this program and the libraries it loads.
extern "C" __attribute__((visibility("default"))) int
pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*),
               void* argument) noexcept
{
    static const auto next = reinterpret_cast<Create>(dlsym(RTLD_NEXT, "pthread_create"));
    if (refusing) {
        ++refusals;
        return EAGAIN;
    }
    return next(thread, attributes, start, argument);
}

ThreadRefusal::ThreadRefusal()
{
    refusing = true;
}

ThreadRefusal::~ThreadRefusal()
{
    refusing = false;
}

int ThreadRefusal::refused()
{
    return refusals;
}
