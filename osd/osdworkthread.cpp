// SPDX-License-Identifier: MIT
#include "osdworkthread.h"

#include "detachedthread.h"
#include "osdconnection.h"

#include <atomic>
#include <chrono>
#include <thread>
#include <utility>

namespace
{

constexpr std::chrono::milliseconds callPoll{1};
constexpr std::chrono::milliseconds callLimit{3500}; // a hang-up takes up to 3000
constexpr unsigned long endWaitMs = 500;

// A function in the connection's event queue. The queue drops it when it has run and when it never
// will: either way, who waits for it need not wait any longer.
struct Posted {
    Posted(std::function<void(OsdConnection&)> f, std::shared_ptr<std::atomic<bool>> o)
        : function(std::move(f)), over(std::move(o))
    {
    }
    ~Posted() { over->store(true, std::memory_order_release); }
    Posted(const Posted&) = delete;
    Posted& operator=(const Posted&) = delete;

    const std::function<void(OsdConnection&)> function;
    const std::shared_ptr<std::atomic<bool>> over;
};

} // namespace

OsdWorkThread::OsdWorkThread(std::shared_ptr<OsdEndpoint> of) : endpoint(std::move(of)) {}

void OsdWorkThread::run()
{
    OsdConnection worker(endpoint, endpoint->run(), *this);
    {
        const std::lock_guard lock(connectionLock);
        connection = &worker;
    }
    worker.start();
    exec();
    const std::lock_guard lock(connectionLock);
    connection = nullptr;
}

void OsdWorkThread::call(std::function<void(OsdConnection&)> function)
{
    if (QThread::currentThread() == this) {
        if (connection != nullptr) {
            function(*connection);
        }
        return;
    }
    const auto over = std::make_shared<std::atomic<bool>>(false);
    {
        const std::lock_guard lock(connectionLock);
        if (connection == nullptr) {
            return;
        }
        const auto posted = std::make_shared<Posted>(std::move(function), over);
        QMetaObject::invokeMethod(
            connection, [worker = connection, posted] { posted->function(*worker); },
            Qt::QueuedConnection);
    }
    const auto end = std::chrono::steady_clock::now() + callLimit;
    while (!over->load(std::memory_order_acquire) && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(callPoll);
    }
}

bool OsdWorkThread::waitForEnd()
{
    return QThread::currentThread() != this && wait(endWaitMs);
}

void OsdWorkThread::release(OsdWorkThread* thread)
{
    if (thread->waitForEnd()) {
        delete thread;
        return;
    }
    // Destroying a QThread that runs would end the process. Where even the thread that waits for
    // it is refused, the object is left behind.
    (void)startDetached([thread] {
        thread->wait();
        delete thread;
    });
}
