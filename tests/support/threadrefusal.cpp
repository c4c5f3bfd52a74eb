// SPDX-License-Identifier: MIT
#include "threadrefusal.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <limits>
#include <memory>
#include <thread>

#include <dlfcn.h>
#include <pthread.h>

namespace
{

constexpr int noLimit = std::numeric_limits<int>::max();

std::atomic<int> remaining{noLimit}; // threads until they are refused
std::atomic<int> toRefuse{0};        // then
std::atomic<int> refusals{0};
std::atomic<bool> isHolding{false};

using Create = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);

struct Start {
    void* (*function)(void*);
    void* argument;
};

void* runWhenLetGo(void* argument)
{
    const std::unique_ptr<const Start> start(static_cast<const Start*>(argument));
    while (isHolding) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return start->function(start->argument);
}

} // namespace

// Takes the place of the C library's function in this program and the libraries it loads.
extern "C" __attribute__((visibility("default"))) int
pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*start)(void*),
               void* argument) noexcept
{
    static const auto next = reinterpret_cast<Create>(dlsym(RTLD_NEXT, "pthread_create"));
    if (remaining != noLimit && remaining-- <= 0 && toRefuse-- > 0) {
        ++refusals;
        return EAGAIN;
    }
    if (!isHolding) {
        return next(thread, attributes, start, argument);
    }
    auto held = std::make_unique<Start>(Start{start, argument});
    const int error = next(thread, attributes, runWhenLetGo, held.get());
    if (error == 0) {
        (void)held.release();
    }
    return error;
}

ThreadRefusal::ThreadRefusal(int after, int count)
{
    toRefuse = count;
    remaining = after;
}

ThreadRefusal::~ThreadRefusal()
{
    remaining = noLimit;
}

ThreadHold::ThreadHold()
{
    isHolding = true;
}

ThreadHold::~ThreadHold()
{
    isHolding = false;
}

int ThreadRefusal::refused()
{
    return refusals;
}
