// SPDX-License-Identifier: MIT
#pragma once

#include "model_osdparam.h"

#include <QObject>

#include <memory>
#include <mutex>
#include <vector>

class ICoreOsdBase;

/// Wants the records of a manager of endpoints.
class OsdRecordListener
{
public:
    OsdRecordListener() = default;
    OsdRecordListener(const OsdRecordListener&) = delete;
    OsdRecordListener& operator=(const OsdRecordListener&) = delete;

    /// One record, on the thread that emits it. Must neither block nor use OsdRecords.
    virtual void take(const model_OsdParam& record) = 0;

protected:
    ~OsdRecordListener() = default;
};

/// Hands the records of one manager, whatever its class, to those who want them. Workers come and
/// go here, so that they never touch the manager, which its owner may be destroying. Any thread.
class OsdRecords : public QObject
{
    Q_OBJECT

public:
    void add(OsdRecordListener& listener);
    void remove(OsdRecordListener& listener); ///< no record reaches it once this has returned

public Q_SLOTS:
    void onSendDatatoDevice(model_OsdParam parameters);

private:
    std::mutex lock; // what the listeners lock goes below it
    std::vector<OsdRecordListener*> listeners;
};

/// The shared manager as the endpoints see it. Any thread.
namespace osdrecordsource
{

/// \a pointer, which must live for ever, is where the shared manager stands. To be called once,
/// before any endpoint starts; always true.
bool share(ICoreOsdBase*& pointer) noexcept;

/// Assigns that pointer.
void set(ICoreOsdBase* manager);

/// The records of the manager that stands there now; null if there is none or if it is gone. They
/// are those of its signal sigSendDatatoDevice(model_OsdParam); Qt warns of a manager without one.
std::shared_ptr<OsdRecords> shared();

/// The manager exists from now on, or is being destroyed.
void add(ICoreOsdBase* manager);
void remove(ICoreOsdBase* manager);

} // namespace osdrecordsource
