// SPDX-License-Identifier: MIT
#pragma once

#include "osdendpoint.h"
#include "osdrecordsource.h"

#include <QSocketNotifier>
#include <QThread>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>

class Core_Osd_TcpSocket;

/// One endpoint's TCP connection and the thread that it lives on, with a Qt event loop. The
/// endpoint's parser runs beside the thread and sees to its end, so that neither the owner nor the
/// end of the process leaves it behind. It can be begun again once it has ended. To be owned by
/// shared pointers.
///
/// The socket is the system's own rather than Qt's, which closes it when a write fails, with what
/// the endpoint has answered still in it, and has no way to hand it on to a lingering close.
class OsdConnection : public QThread, public std::enable_shared_from_this<OsdConnection>
{
public:
    using Function = std::function<void(OsdConnection&)>;

    /// \a of is the object whose signal tells of a loss.
    OsdConnection(std::shared_ptr<OsdEndpoint> to, Core_Osd_TcpSocket* of);

    /// Starts the thread, which opens the connection, and the parser; does not wait. False, and
    /// nothing started, if the system has no descriptors or threads for them. Only while idle.
    bool begin();

    /// Neither the thread nor its parser runs. They are given up to 500 ms to end if the endpoint
    /// has been stopped, but not by this very thread.
    bool isIdle() const;

    /// Runs the function on this thread and waits for it, at most 3500 ms; on this very thread it
    /// runs at once. Returns without it if the thread has not been begun, and as soon as the thread
    /// ends without having come to it: what is stopped is never waited for. Any thread.
    void call(const Function& function);

    /// Has the record sent if it is addressed to this endpoint. Does not wait. Any thread.
    void take(const model_OsdParam& record);

    /// No loss is told any more. Waits for what hears of one right now, however long that takes,
    /// unless it is the caller.
    void forgetOwner();

    // The rest is for this very thread. Out of turn, without a connection say, it does nothing.

    /// Listens to the socket, and takes the records from there, if not null.
    void connectSignals(std::shared_ptr<OsdRecords> from);
    void disconnectSignals();

    /// Closes an earlier connection and begins to connect; does not wait. The local port is the
    /// fixed one, or any other if that is taken. Does nothing once the endpoint has been stopped.
    void open();

    void onConnected(); ///< records and received bytes pass from now on
    void onReadyRead(); ///< moves what has come into the endpoint's buffer while that is not full

    /// Writes the bytes and waits up to 2000 ms until the system has taken them, or until the
    /// endpoint is stopped; what is left then follows by itself. Drops them if not connected.
    void send(const QByteArray& bytes);

    /// Waits up to 3000 ms until the system has taken what is pending, then leaves the connection
    /// to a lingering close.
    void closeSocket();

    bool event(QEvent* event) override; ///< runs a call

protected:
    void run() override;

private:
    std::shared_ptr<std::atomic<bool>> post(const Function& function);
    void await(int descriptors);
    void end();
    void keep();
    void lose();
    void onWritable();
    void updateNotifiers();
    void closeDescriptor();
    bool flush();
    bool takeAvailable(bool evenIfFull);
    bool deliver(int limitMs, const std::function<bool()>& goOn);

    const std::shared_ptr<OsdEndpoint> endpoint;
    std::mutex callLock;                 // held to post and to end; the event queue's goes below it
    std::atomic<bool> takesCalls{false}; // from the start of the thread to its end
    std::atomic<bool> begun{false};
    std::atomic<bool> idle{true};
    std::recursive_mutex ownerLock; // held while a loss is told: a slot may destroy the owner
    Core_Osd_TcpSocket* owner;

    // This thread's own.
    int awaited = 0; // descriptors that it is about to take
    std::shared_ptr<OsdRecords> records;
    int descriptor = -1;
    std::unique_ptr<QSocketNotifier> readable; // exist while the descriptor does
    std::unique_ptr<QSocketNotifier> writable;
    ReceiveBuffer pending; // to be sent
    bool listening = false;
    bool bConnected = false;
    bool heldBack = false; // the endpoint's buffer is full
    bool lost = false;
};
