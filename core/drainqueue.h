// SPDX-License-Identifier: MIT
#pragma once

#include "detachedthread.h"
#include "processend.h"

#include <atomic>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <utility>

/// A queue that empties itself on one detached thread: the thread starts when something is put in,
/// hands on everything in order and ends. However much is put in, there is at most one thread.
///
/// The thread shares ownership of the queue's state, so the DrainQueue itself may go at any time;
/// what is pending is still handed on, unless the process ends before that. Any thread may put.
template <class Item>
class DrainQueue
{
public:
    /// What to do with a batch of items, oldest first. It must own everything it touches, must not
    /// throw, and stops at processend::over().
    using Handler = std::function<void(std::deque<Item>&)>;

    explicit DrainQueue(Handler handler) : state(std::make_shared<State>(std::move(handler))) {}

    /// Puts one item at the end. False means that the item is kept but no thread could be started
    /// for it: call drainElsewhere or drainHere later.
    [[nodiscard]] bool put(Item item)
    {
        {
            const std::lock_guard lock(state->lock);
            state->pending.push_back(std::move(item));
            if (state->draining) {
                return true;
            }
            state->draining = true;
            state->stranded.store(false, std::memory_order_release);
        }
        return start();
    }

    /// True if nothing is pending and nothing is being handed on: an item handed on directly now
    /// overtakes none that the same thread put before.
    bool idle() const
    {
        const std::lock_guard lock(state->lock);
        return !state->draining && state->pending.empty();
    }

    /// Tries again to start a thread for what is pending. True if there is nothing left to do.
    [[nodiscard]] bool drainElsewhere() { return !claim() || start(); }

    /// Hands on what is pending on the calling thread, unless a thread is already at it. Costs
    /// nothing worth mentioning if there is nothing to do.
    void drainHere()
    {
        if (state->stranded.load(std::memory_order_acquire) && claim()) {
            drain(*state);
        }
    }

private:
    struct State {
        explicit State(Handler h) : handler(std::move(h)) {}
        const Handler handler;
        mutable std::mutex lock; // a leaf: nothing is called while it is held
        std::deque<Item> pending;
        bool draining = false;
        std::atomic<bool> stranded{false}; // pending though nobody is draining; set under the lock
    };

    bool claim()
    {
        const std::lock_guard lock(state->lock);
        if (state->draining || state->pending.empty()) {
            return false;
        }
        state->draining = true;
        state->stranded.store(false, std::memory_order_release);
        return true;
    }

    bool start()
    {
        if (startDetached([shared = state] { drain(*shared); })) {
            return true;
        }
        const std::lock_guard lock(state->lock);
        state->draining = false;
        state->stranded.store(true, std::memory_order_release);
        return false;
    }

    static void drain(State& state)
    {
        std::deque<Item> batch;
        for (;;) {
            {
                const std::lock_guard lock(state.lock);
                batch.swap(state.pending); // and not destroyed below the lock
                if (batch.empty() || processend::over()) {
                    state.draining = false;
                    return;
                }
            }
            state.handler(batch);
            batch.clear();
        }
    }

    std::shared_ptr<State> state;
};
