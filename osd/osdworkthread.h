// SPDX-License-Identifier: MIT
#pragma once

#include "osdcall.h"
#include "osdendpoint.h"

#include <QThread>

#include <memory>
#include <mutex>

class OsdConnection;

/// The thread that one endpoint's connection lives on, with a Qt event loop. It can be started
/// again once it has ended.
class OsdWorkThread : public QThread
{
    Q_OBJECT

public:
    explicit OsdWorkThread(std::shared_ptr<OsdEndpoint> of);

    /// Runs the function on this thread's connection and waits for it, at most 3500 ms. On this
    /// very thread it runs at once. Returns without it if the thread isn't running, and as soon as
    /// the thread ends without having come to it: what is stopped is never waited for. Any thread.
    void call(const OsdCall::Function& function);

    /// For this thread, before it looks at an event: makes what the sender of a call wrote before
    /// it visible. Qt's own lock does so too, but only this one is known to thread checkers.
    void takeOver() { const std::lock_guard lock(connectionLock); }

    /// Waits until the thread has ended, at most 500 ms. False if it has not, and always on this
    /// very thread.
    bool waitForEnd();

    /// Deletes the thread object once its thread has ended, now or later. Does not wait.
    static void release(OsdWorkThread* thread);

Q_SIGNALS:
    /// The connection has failed or the endpoint has hung up; this thread is about to end.
    void lost();

protected:
    void run() override;

private:
    std::shared_ptr<OsdEndpoint> endpoint;
    std::mutex connectionLock;           // connection; the lock of its event queue goes below it
    OsdConnection* connection = nullptr; // while the thread runs
};
