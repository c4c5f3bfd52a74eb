// SPDX-License-Identifier: MIT
#include "osdrecordsource.h"

#include <mutex>

namespace
{

struct Shared {
    std::mutex lock; // only Qt's own connection locks are taken below it
    ICoreOsdBase* manager = nullptr;
};

// Never destroyed: a worker thread may still part from its manager while the process ends.
Shared& shared()
{
    static auto* const instance = new Shared;
    return *instance;
}

} // namespace

void osdrecordsource::set(ICoreOsdBase* manager)
{
    const std::lock_guard lock(shared().lock);
    shared().manager = manager;
}

void osdrecordsource::forget(const ICoreOsdBase* manager)
{
    const std::lock_guard lock(shared().lock);
    if (shared().manager == manager) {
        shared().manager = nullptr;
    }
}

void osdrecordsource::use(const std::function<void(ICoreOsdBase&)>& function)
{
    const std::lock_guard lock(shared().lock);
    if (shared().manager != nullptr) {
        function(*shared().manager);
    }
}
