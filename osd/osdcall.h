// SPDX-License-Identifier: MIT
#pragma once

#include <QEvent>

#include <atomic>
#include <functional>
#include <memory>
#include <utility>

class OsdConnection;

/// A function on its way to a connection through the event queue of its thread. The queue deletes
/// it when it has run and when it never will: either way who waits for it need not wait longer.
class OsdCall : public QEvent
{
public:
    using Function = std::function<void(OsdConnection&)>;

    /// The only kind of event that is sent to a connection under this type.
    static constexpr Type type = User;

    /// \a over becomes true when the call is deleted.
    OsdCall(Function f, std::shared_ptr<std::atomic<bool>> over)
        : QEvent(type), function(std::move(f)), isOver(std::move(over))
    {
    }
    ~OsdCall() override { isOver->store(true, std::memory_order_release); }
    OsdCall(const OsdCall&) = delete;
    OsdCall& operator=(const OsdCall&) = delete;

    void run(OsdConnection& connection) const { function(connection); }

private:
    const Function function;
    const std::shared_ptr<std::atomic<bool>> isOver;
};
