// SPDX-License-Identifier: MIT
#include "osdrecords.h"

#include "icoreosdbase.h"

#include <utility>

namespace
{

ICoreOsdBase* none = nullptr;
ICoreOsdBase** sharedPointer = &none; // set before there are threads

struct Managers {
    std::mutex lock;
    std::map<ICoreOsdBase*, std::shared_ptr<OsdRecords>> living; // null until someone listens
};

// Never destroyed: managers may be, while the process ends.
Managers& managers()
{
    static auto* const instance = new Managers;
    return *instance;
}

} // namespace

void OsdRecords::add(const void* who, Taker taker)
{
    const std::lock_guard locker(lock);
    takers[who] = std::move(taker);
}

void OsdRecords::remove(const void* who)
{
    const std::lock_guard locker(lock);
    takers.erase(who);
}

void OsdRecords::onSendDatatoDevice(model_OsdParam parameters)
{
    const std::lock_guard locker(lock);
    for (const auto& [who, take] : takers) {
        take(parameters);
    }
}

bool OsdRecords::share(ICoreOsdBase*& pointer) noexcept
{
    sharedPointer = &pointer;
    return true;
}

void OsdRecords::setShared(ICoreOsdBase* manager)
{
    __atomic_store_n(sharedPointer, manager, __ATOMIC_RELEASE);
}

std::shared_ptr<OsdRecords> OsdRecords::shared()
{
    const std::lock_guard lock(managers().lock);
    auto& living = managers().living;
    const auto found = living.find(__atomic_load_n(sharedPointer, __ATOMIC_ACQUIRE));
    if (found == living.end()) {
        return nullptr;
    }
    if (!found->second) {
        found->second = std::make_shared<OsdRecords>();
        // By name: a host's own manager declares the signal itself.
        QObject::connect(found->first, SIGNAL(sigSendDatatoDevice(model_OsdParam)),
                         found->second.get(), SLOT(onSendDatatoDevice(model_OsdParam)),
                         Qt::DirectConnection);
    }
    return found->second;
}

void OsdRecords::begin(ICoreOsdBase* manager)
{
    const std::lock_guard lock(managers().lock);
    managers().living.emplace(manager, nullptr);
}

void OsdRecords::end(ICoreOsdBase* manager)
{
    const std::lock_guard lock(managers().lock);
    const auto records = managers().living.extract(manager);
    if (!records.empty() && records.mapped()) {
        manager->disconnect(records.mapped().get());
    }
}
