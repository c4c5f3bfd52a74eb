// SPDX-License-Identifier: MIT
#pragma once

#include "detachedthread.h"
#include "processend.h"

#include <cerrno>
#include <deque>
#include <mutex>
#include <new>
#include <optional>
#include <utility>

#include <pthread.h>
#include <semaphore.h>
#include <unistd.h>

/// What debuggers and process viewers show for these threads.
constexpr char handOverThreadName[] = "core-handover";

/// A queue with a thread that hands on what is put in, for what the host may keep waiting: nobody
/// else waits for it. Made once for the process and never destroyed: its thread, once started,
/// waits for the next item until the process ends. At the end of the process what is pending gets
/// the time that processend gives it.
///
/// The thread is asked for when a link is made, so that a link which the system refuses it can say
/// so; an item that is put in asks once more. Any thread may call any operation; none blocks.
template <class Item>
class HandOverThread
{
public:
    /// What to do with a batch of items, oldest first. Must not throw, and returns soon after
    /// processend::over().
    using Handler = void (*)(std::deque<Item>&);

    explicit HandOverThread(Handler h) : handler(h) { sem_init(&wake, 0, 0); }
    HandOverThread(const HandOverThread&) = delete;
    HandOverThread& operator=(const HandOverThread&) = delete;

    /// Starts the thread unless it runs. False if the system refuses it.
    [[nodiscard]] bool start()
    {
        const std::lock_guard guard(lock);
        return startLocked();
    }

    /// Puts one item at the end. It waits for the next item, or for the next link, if there is no
    /// thread and the system refuses one.
    void put(Item item)
    {
        const std::lock_guard guard(lock);
        if (!present) {
            present.emplace();
        }
        if (pending.empty()) {
            sem_post(&wake);
        }
        pending.push_back(std::move(item));
        ++count;
        (void)startLocked();
    }

    /// How many items have been put in and not been handed on yet.
    std::size_t size() const
    {
        const std::lock_guard guard(lock);
        return count;
    }

private:
    bool startLocked()
    {
        try {
            running = running || detachedthread::create([this] { run(); });
        } catch (const std::bad_alloc&) {
        }
        return running;
    }

    // A semaphore instead of a poll: there may be nothing to do for days.
    void run()
    {
        pthread_setname_np(pthread_self(), handOverThreadName);
        std::deque<Item> batch;
        while (!processend::over()) {
            while (sem_wait(&wake) != 0 && errno == EINTR) {
            }
            {
                const std::lock_guard guard(lock);
                batch.swap(pending);
            }
            const std::size_t size = batch.size();
            if (!processend::over()) {
                handler(batch);
            }
            if (!processend::over()) {
                batch.clear();
            }
            finish(size);
        }
        for (;;) { // what is left in the batch belongs to a host that is gone
            pause();
        }
    }

    void finish(std::size_t handedOn)
    {
        const std::lock_guard guard(lock);
        count -= handedOn;
        if (count == 0) {
            present.reset();
        }
    }

    const Handler handler;
    sem_t wake{};
    mutable std::mutex lock; // pending, count, present, running
    std::deque<Item> pending;
    std::size_t count = 0; // of pending, and of the batch that is being handed on
    std::optional<processend::Presence> present; // while there is something to hand on
    bool running = false;
};
