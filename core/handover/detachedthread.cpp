// SPDX-License-Identifier: MIT
#include "detachedthread.h"

#include <memory>

#include <pthread.h>

namespace
{

using Function = std::function<void()>;

void* run(void* argument)
{
    const std::unique_ptr<const Function> function(static_cast<const Function*>(argument));
    (*function)();
    return nullptr;
}

} // namespace

// Created detached: to detach a thread that runs already can fail, and would end the process.
bool detachedthread::create(Function function) noexcept
{
    processend::watch();
    std::unique_ptr<Function> argument(new (std::nothrow) Function(std::move(function)));
    pthread_attr_t attributes;
    if (argument == nullptr || pthread_attr_init(&attributes) != 0) {
        return false;
    }
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    pthread_t thread{};
    const bool isCreated = pthread_create(&thread, &attributes, run, argument.get()) == 0;
    pthread_attr_destroy(&attributes);
    if (isCreated) {
        (void)argument.release();
    }
    return isCreated;
}
