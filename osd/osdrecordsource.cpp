// SPDX-License-Identifier: MIT
#include "osdrecordsource.h"

#include "core_osd_manage.h"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <vector>

namespace
{

std::atomic<ICoreOsdBase**> sharedPointer{nullptr};

struct Managers {
    std::mutex lock; // only Qt's own connection locks are taken below it
    std::vector<core_Osd_Manage*> living;
};

// Never destroyed: a worker thread may still part from its manager while the process ends.
Managers& managers()
{
    static auto* const instance = new Managers;
    return *instance;
}

} // namespace

bool osdrecordsource::share(ICoreOsdBase*& pointer) noexcept
{
    sharedPointer = &pointer;
    return true;
}

void osdrecordsource::set(ICoreOsdBase* manager)
{
    __atomic_store_n(sharedPointer.load(), manager, __ATOMIC_RELEASE);
}

const ICoreOsdBase* osdrecordsource::shared()
{
    ICoreOsdBase** const pointer = sharedPointer;
    return pointer == nullptr ? nullptr : __atomic_load_n(pointer, __ATOMIC_ACQUIRE);
}

void osdrecordsource::add(core_Osd_Manage* manager)
{
    const std::lock_guard lock(managers().lock);
    managers().living.push_back(manager);
}

void osdrecordsource::remove(core_Osd_Manage* manager)
{
    const std::lock_guard lock(managers().lock);
    auto& living = managers().living;
    living.erase(std::remove(living.begin(), living.end(), manager), living.end());
}

void osdrecordsource::use(const ICoreOsdBase* manager,
                          const std::function<void(core_Osd_Manage&)>& function)
{
    const std::lock_guard lock(managers().lock);
    const auto& living = managers().living;
    const auto found = std::find(living.begin(), living.end(), manager);
    if (found != living.end()) {
        function(**found);
    }
}
