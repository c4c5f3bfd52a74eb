// SPDX-License-Identifier: MIT
#pragma once

#include "osdendpoint.h"
#include "osdrecords.h"

#include <QThread>

#include <atomic>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>

class Core_Osd_TcpSocket;

/// One endpoint's TCP connection and its two threads: the endpoint's parser, which also looks at
/// the socket before each of its passes, and this QThread, whose event loop serves the object that
/// lives on it. The parser's thread waits for the other's end, so that neither the owner nor the
/// end of the process leaves it behind. To be owned by shared pointers.
///
/// The socket is the system's own: Qt's closes when a write fails, with unread answers in it, and
/// cannot be handed on to a lingering close.
///
/// Any thread may call any operation; those on the connection do nothing while there is none.
class OsdConnection : public QThread, public std::enable_shared_from_this<OsdConnection>
{
public:
    /// \a of is the object whose signal tells of a loss.
    explicit OsdConnection(Core_Osd_TcpSocket* of);
    ~OsdConnection() override;

    /// Starts the threads and begins to connect; does not wait for the connection. Does nothing if
    /// one of them runs (they get 500 ms to end if they have been stopped), or where the system has
    /// no descriptor or thread left, which a line in the log says.
    void begin();

    /// Has the socket looked at, and takes the records of the shared manager as it stands now.
    void connectSignals();
    void disconnectSignals();
    bool isListening() const { return listening; } ///< between these two

    /// Closes an earlier connection, as closeSocket, and begins to connect. The local port is the
    /// fixed one, or any other if that is taken. Only while the threads run and are not stopped.
    void open();

    void onConnected(); ///< records and received bytes pass from now on

    /// Looks at the socket: notices the connection and its loss, moves what has come into the
    /// endpoint's buffer while that is not full, and sends what is pending. If it may, and if the
    /// buffer holds no acknowledgement, waits up to 20 ms until there is something to look at.
    void look(bool mayWait = false);

    /// Sends the record if it is addressed to this endpoint. Does not wait: what the system does
    /// not take at once is pending, and follows by itself.
    void take(const model_OsdParam& record);

    /// Sends the bytes behind what is pending and waits up to 2000 ms until the system has taken
    /// them, or until the endpoint is stopped; what is left then follows by itself.
    void send(const QByteArray& bytes);

    /// Waits up to 3000 ms until the system has taken what is pending, then leaves the connection
    /// to a lingering close.
    void closeSocket();

    /// No loss is told any more. Waits for what hears of one right now, however long that takes,
    /// unless it is the caller.
    void forgetOwner();

    OsdEndpoint endpoint;

protected:
    void run() override;

private:
    bool startThreads();
    void keep();
    void awaitThread();
    void logShortage() const;
    int connectSocket(const OsdEndpoint::Address& address);
    void closeDescriptor();
    void lose();
    void exchange(bool evenIfFull);
    bool isPending() const { return sentOfFrame < frame.size() || !pending.empty(); }
    bool flush();
    bool takeAvailable(bool evenIfFull);
    void deliver(std::unique_lock<std::mutex>& lock, int limitMs, bool evenIfStopped);

    std::atomic<bool> running{false}; // until this thread's last access to this object
    std::atomic<bool> lost{false};
    std::recursive_mutex ownerLock; // held while a loss is told: a slot may destroy the owner
    Core_Osd_TcpSocket* owner;

    std::mutex recordsLock; // the lock of the records goes below it
    std::shared_ptr<OsdRecords> records;
    std::atomic<bool> listening{false};

    std::mutex socketLock; // for what follows; goes below the lock of the records
    int descriptor = -1;
    QByteArray frame; // being sent
    int sentOfFrame = 0;
    std::deque<std::function<QByteArray()>> pending; // make the frames behind it: they may be large
    bool bConnected = false;
};
