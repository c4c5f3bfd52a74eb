// SPDX-License-Identifier: MIT
#pragma once

#include "model_osdparam.h"

#include <QObject>

#include <functional>
#include <map>
#include <memory>
#include <mutex>

class ICoreOsdBase;

/// Passes the records of one manager, whatever its class, on to the endpoints, which so never touch
/// the manager: its owner may be destroying it. Any thread.
class OsdRecords : public QObject
{
    Q_OBJECT

public:
    /// Takes one record, on the thread that emits it. Must neither block nor use OsdRecords.
    using Taker = std::function<void(const model_OsdParam&)>;

    void add(const void* who, Taker taker);
    void remove(const void* who); ///< no record reaches it once this has returned

public Q_SLOTS:
    void onSendDatatoDevice(model_OsdParam parameters);

private:
    std::mutex lock; // what the takers lock goes below it
    std::map<const void*, Taker> takers;
};

/// The shared manager as the endpoints see it. Any thread.
namespace osdrecordsource
{

/// \a pointer, which must live for ever, is where the shared manager stands. To be called once,
/// before any thread starts; always true.
bool share(ICoreOsdBase*& pointer) noexcept;

void set(ICoreOsdBase* manager); ///< assigns that pointer

/// The records of the manager that stands there now; null if there is none or if it is gone. They
/// are those of its signal sigSendDatatoDevice(model_OsdParam); Qt warns of a manager without one.
std::shared_ptr<OsdRecords> shared();

/// The manager exists from now on, or is being destroyed.
void add(ICoreOsdBase* manager);
void remove(ICoreOsdBase* manager);

} // namespace osdrecordsource
