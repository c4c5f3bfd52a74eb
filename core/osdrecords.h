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
    /// Those of the shared manager as it stands now, by its signal
    /// sigSendDatatoDevice(model_OsdParam); null if there is no manager or if it is gone. Qt warns
    /// of a manager without that signal.
    static std::shared_ptr<OsdRecords> shared();

    /// \a pointer, which must live for ever, is where the shared manager stands. To be called once,
    /// before any thread starts; always true.
    static bool share(ICoreOsdBase*& pointer) noexcept;

    static void setShared(ICoreOsdBase* manager); ///< assigns that pointer

    static void begin(ICoreOsdBase* manager); ///< the manager exists from now on
    static void end(ICoreOsdBase* manager);   ///< it is being destroyed

    /// Takes one record, on the thread that emits it. Must neither wait nor use OsdRecords.
    using Taker = std::function<void(const model_OsdParam&)>;

    void add(const void* who, Taker taker);
    void remove(const void* who); ///< no record reaches it once this has returned

public Q_SLOTS:
    void onSendDatatoDevice(model_OsdParam parameters);

private:
    std::mutex lock; // what the takers lock goes below it
    std::map<const void*, Taker> takers;
};
