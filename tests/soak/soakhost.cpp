// SPDX-License-Identifier: MIT
#include "soakhost.h"

#include <algorithm>

void SoakHost::perform(const std::function<void()>& task)
{
    std::unique_lock guard(lock);
    tasks.push_back(&task);
    done.wait(guard, [&] { return std::count(tasks.begin(), tasks.end(), &task) == 0; });
}

// A task leaves the list when it is done: its peer waits for that.
void SoakHost::performAll()
{
    std::unique_lock guard(lock);
    while (!tasks.empty()) {
        const auto* const task = tasks.front();
        guard.unlock();
        (*task)();
        guard.lock();
        tasks.erase(tasks.begin());
        done.notify_all();
    }
}

void SoakHost::fail(const QString& text)
{
    const std::lock_guard guard(lock);
    if (!failed.exchange(true)) {
        reason = text;
    }
    isOver = true;
}

QString SoakHost::failure() const
{
    const std::lock_guard guard(lock);
    return reason;
}
