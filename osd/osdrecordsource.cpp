// SPDX-License-Identifier: MIT
#include "osdrecordsource.h"

#include <mutex>

namespace
{

struct Shared {
    std::mutex lock; // only Qt's own connection locks are taken below it
    core_Osd_Manage* manager = nullptr;
};

// Never destroyed: a worker thread may still part from its manager while the process ends.
Shared& shared()
{
    static auto* const instance = new Shared;
    return *instance;
}

} // namespace

void osdrecordsource::set(core_Osd_Manage* manager)
{
    const std::lock_guard lock(shared().lock);
    shared().manager = manager;
}

void osdrecordsource::forget(const core_Osd_Manage* manager)
{
    const std::lock_guard lock(shared().lock);
    if (shared().manager == manager) {
        shared().manager = nullptr;
    }
}

void osdrecordsource::use(const std::function<void(core_Osd_Manage&)>& function)
{
    const std::lock_guard lock(shared().lock);
    if (shared().manager != nullptr) {
        function(*shared().manager);
    }
}
