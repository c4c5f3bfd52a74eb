// SPDX-License-Identifier: MIT
#pragma once

#include "linkobserver.h"

#include <atomic>
#include <mutex>
#include <vector>

/// Where a link tells what happens to it: its observers. Shared by the link and its threads, which
/// may outlive it. Any thread may call any operation; none blocks except in an observer. Nothing is
/// to be told under a lock.
class LinkTap
{
public:
    using Kind = LinkEvent::Kind;
    using Check = LinkEvent::Check;

    void add(std::shared_ptr<LinkObserver> observer);
    void remove(const std::shared_ptr<LinkObserver>& observer);

    bool isWatched() const { return watched.load(std::memory_order_relaxed); }

    /// Tells the observers of the event that \a make returns, which is called only if there are
    /// any.
    template <class Make>
    void tellOf(Make&& make) const
    {
        if (isWatched()) {
            deliver(make());
        }
    }

    /// Tells of an event without a record. \a bytes are copied only if there are observers.
    void tell(Kind kind, const QByteArray& bytes = {}, const QString& peer = {},
              quint16 port = 0) const
    {
        tellOf([&] { return LinkEvent{kind, Check::None, bytes, peer, port}; });
    }

    void tell(Kind kind, const char* bytes, qint64 size) const
    {
        tellOf([&] {
            return LinkEvent{kind, Check::None, {bytes, static_cast<int>(size)}, QString()};
        });
    }

    /// Tells of bytes that failed a check. \a reply is the one whose block they are to be.
    void refuse(Check check, const QByteArray& bytes, const model_Protocoldata* reply = nullptr,
                const QString& peer = {}, quint16 port = 0) const
    {
        tellOf([&] { return LinkEvent{Kind::Refused, check, bytes, peer, port, reply}; });
    }

    /// No observer is called any more, of whatever link: the process ends.
    static void silence() noexcept;

private:
    using Observers = std::vector<std::shared_ptr<LinkObserver>>;

    void deliver(const LinkEvent& event) const;

    std::atomic<bool> watched{false};
    mutable std::mutex lock; // a leaf: which observers
    std::shared_ptr<const Observers> observers = std::make_shared<Observers>(); // copied on write
};
