// SPDX-License-Identifier: MIT
#pragma once

#include "detachedthread.h"
#include "processend.h"

#include <condition_variable>
#include <deque>
#include <mutex>
#include <optional>
#include <utility>

#include <pthread.h>

/// What debuggers and process viewers show for these threads.
constexpr char handOverThreadName[] = "core-handover";

/// A queue and the thread that empties it, for items whose handling may wait for the host. Made
/// once for the process and never destroyed; the end of the process waits for pending items as
/// processend says.
///
/// A link starts the thread before it opens, so that it can report a refusal; each item tries once
/// more. Any thread may call any operation; none blocks.
template <class Item>
class HandOverThread
{
public:
    /// What to do with a batch of items, oldest first. Must not throw or change the number of
    /// items, and returns soon after processend::over().
    using Handler = void (*)(std::deque<Item>&);

    explicit HandOverThread(Handler h) : handler(h) {}
    HandOverThread(const HandOverThread&) = delete;
    HandOverThread& operator=(const HandOverThread&) = delete;

    /// Starts the thread unless it runs. False if the system refuses it.
    [[nodiscard]] bool start()
    {
        const std::lock_guard guard(lock);
        return startLocked();
    }

    /// Puts one item at the end. If the system refuses the thread, the item stays until the next
    /// item or the next link.
    void put(Item item)
    {
        const std::lock_guard guard(lock);
        if (!present) {
            present.emplace();
        }
        pending.push_back(std::move(item));
        (void)startLocked();
        wake.notify_one();
    }

    /// How many items have been put in and not been handed on yet.
    std::size_t size() const
    {
        const std::lock_guard guard(lock);
        return pending.size() + batch.size();
    }

private:
    bool startLocked()
    {
        running = running || detachedthread::create([this] { run(); });
        return running;
    }

    // What is left in the batch at the end of the process belongs to a host that is gone: nothing
    // destroys it.
    void run()
    {
        pthread_setname_np(pthread_self(), handOverThreadName);
        for (;;) {
            {
                std::unique_lock guard(lock);
                wake.wait(guard, [this] { return !pending.empty(); });
                batch.swap(pending);
            }
            if (processend::over()) {
                return;
            }
            handler(batch);
            if (processend::over()) {
                return;
            }
            finish();
        }
    }

    // Items are destroyed without the lock: that may be the host's code.
    void finish()
    {
        std::deque<Item> done;
        {
            const std::lock_guard guard(lock);
            done.swap(batch);
        }
        done.clear();
        const std::lock_guard guard(lock);
        if (pending.empty()) {
            present.reset();
        }
    }

    const Handler handler;
    mutable std::mutex lock; // all below; the handler gets the batch without it
    std::condition_variable wake;
    std::deque<Item> pending;
    std::deque<Item> batch;                      // is being handed on; the handler keeps its size
    std::optional<processend::Presence> present; // while there is something to hand on
    bool running = false;
};
