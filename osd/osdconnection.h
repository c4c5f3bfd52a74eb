// SPDX-License-Identifier: MIT
#pragma once

#include "osdendpoint.h"
#include "osdrecordsource.h"

#include <QSocketNotifier>
#include <QThread>

#include <atomic>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>

class Core_Osd_TcpSocket;

/// One endpoint's TCP connection and the thread it lives on, which runs a Qt event loop. The
/// endpoint's parser runs beside it and waits for its end, so that neither the owner nor the end of
/// the process leaves it behind. To be owned by shared pointers; it can begin again once idle.
///
/// The socket is the system's own: Qt's closes when a write fails, with unread answers in it, and
/// cannot be handed on to a lingering close.
class OsdConnection : public QThread, public std::enable_shared_from_this<OsdConnection>
{
public:
    using Function = std::function<void(OsdConnection&)>;

    /// \a of is the object whose signal tells of a loss.
    explicit OsdConnection(Core_Osd_TcpSocket* of);

    /// Starts the thread and the parser and has the thread begin to connect; does not wait for the
    /// connection. False, with nothing started, if the thread or the parser runs (they get 500 ms
    /// to end if they have been stopped), and where the system has no descriptor or thread left,
    /// which a line in the log says.
    bool begin();

    /// Runs the function on this thread and waits for it, at most 3500 ms; on this very thread it
    /// runs at once. Returns without running it if the thread has not begun or ends before. Any
    /// thread.
    void call(const Function& function);

    /// Has the record sent if it is addressed to this endpoint. Does not wait. Any thread.
    void take(const model_OsdParam& record);

    /// No loss is told any more. Waits for what hears of one right now, however long that takes,
    /// unless it is the caller.
    void forgetOwner();

    // The rest is for this very thread. Out of turn, without a connection say, it does nothing.

    /// Listens to the socket and takes the records of the shared manager as it stands now.
    void connectSignals();
    void disconnectSignals();

    /// Closes an earlier connection and begins to connect; does not wait. The local port is the
    /// fixed one, or any other if that is taken. Does nothing once the endpoint has been stopped.
    void open();

    void onConnected(); ///< records and received bytes pass from now on

    /// Moves what has come into the endpoint's buffer, or waits 10 ms while that is full.
    void onReadyRead();

    /// Writes the bytes and waits up to 2000 ms until the system has taken them, or until the
    /// endpoint is stopped; what is left then follows by itself. Drops them if not connected.
    void send(const QByteArray& bytes);

    /// Waits up to 3000 ms until the system has taken what is pending, then leaves the connection
    /// to a lingering close.
    void closeSocket();

    OsdEndpoint endpoint; ///< any thread

protected:
    void run() override;
    void customEvent(QEvent* event) override; // runs the next posted function

private:
    bool startThreads();
    void post(std::function<void()> function);
    void end();
    void keep();
    void lose();
    void logShortage() const;
    void onWritable();
    void updateNotifiers();
    bool flush();
    bool takeAvailable(bool evenIfFull);
    bool deliver(int limitMs, bool evenIfStopped);

    std::mutex callLock; // held to post; the event queue's goes below it
    std::deque<std::function<void()>> calls;
    bool takesCalls = false;          // from the start of the thread to its end
    std::atomic<bool> running{false}; // until the thread's last access to this object
    std::recursive_mutex ownerLock;   // held while a loss is told: a slot may destroy the owner
    Core_Osd_TcpSocket* owner;

    // This thread's own.
    std::shared_ptr<OsdRecords> records;
    int descriptor = -1;
    std::unique_ptr<QSocketNotifier> readable; // exist while the descriptor does
    std::unique_ptr<QSocketNotifier> writable;
    ReceiveBuffer pending; // to be sent
    bool listening = false;
    bool bConnected = false;
    bool lost = false;
};
