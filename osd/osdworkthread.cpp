// SPDX-License-Identifier: MIT
#include "osdworkthread.h"

#include "detachedthread.h"
#include "osdconnection.h"

#include <QCoreApplication>

#include <atomic>
#include <chrono>
#include <thread>
#include <utility>

namespace
{

constexpr std::chrono::milliseconds callPoll{1};
constexpr std::chrono::milliseconds callLimit{3500}; // a hang-up takes up to 3000
constexpr unsigned long endWaitMs = 500;

} // namespace

OsdWorkThread::OsdWorkThread(std::shared_ptr<OsdEndpoint> of) : endpoint(std::move(of)) {}

void OsdWorkThread::run()
{
    // Not on this thread's stack, which whoever posts to it would have to bring in page by page.
    const auto worker = std::make_unique<OsdConnection>(endpoint, endpoint->run(), *this);
    {
        const std::lock_guard lock(connectionLock);
        connection = worker.get();
    }
    worker->start();
    exec();
    const std::lock_guard lock(connectionLock);
    connection = nullptr;
}

void OsdWorkThread::call(const OsdCall::Function& function)
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
        QCoreApplication::postEvent(connection, new OsdCall(function, over));
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
    if (!thread->isRunning()) {
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
