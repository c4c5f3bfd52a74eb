// SPDX-License-Identifier: MIT
#pragma once

#include "core_manage_export.h"
#include "linkobserver.h"
#include "model_osdparam.h"

#include <QAbstractSocket>
#include <QByteArray>
#include <QObject>
#include <QString>

#include <memory>

class OsdConnection;

/// A TCP client of one on-screen-display endpoint. It sends the shared manager's records that are
/// addressed to this endpoint and hands each acknowledgement, "OK" and one byte, to
/// biz_Osd_CMDSWork::addToReceiveQueue. The frames are described in osdframe.h.
///
/// | state       | worker thread | begins with               | ends with                         |
/// |-------------|---------------|---------------------------|-----------------------------------|
/// | constructed | none          | the constructor           | connectSever                      |
/// | connecting  | runs          | connectSever              | the connection, an error, close   |
/// | connected   | runs          | the connection            | an error, a hang-up, close        |
/// | stopped     | none          | error, hang-up or close   | connectSever                      |
///
/// The object lives on a worker thread of its own with an event loop, which connectSever starts; a
/// parser thread looks every 3 ms at the socket and then for one acknowledgement. Losing the
/// connection stops both: nothing is reported, nothing is tried again, and connectSever starts
/// anew. Records come from CoreFactory::iOsdCore as it stands at connectSever, whatever its class
/// is, by the name of the signal sigSendDatatoDevice(model_OsdParam); while that is null, there are
/// none until the next connectSever.
///
/// connectSever, close and the destructor belong to one thread, the caller's. The other operations
/// may be called from any thread, which does the work. Out of turn they do nothing.
class CORE_MANAGE_EXPORT Core_Osd_TcpSocket : public QObject, public ObservableLink
{
    Q_OBJECT

public:
    /// The endpoint is 127.0.0.1, port 10001, until connectSever. Starts nothing.
    explicit Core_Osd_TcpSocket(QObject* parent = nullptr);

    /// As close. Also waits for the slots that hear of a loss right now, however long they take;
    /// one of them may destroy the object itself.
    ~Core_Osd_TcpSocket() override;

    /// Sets the endpoint and, unless the worker runs already, starts it; port is used modulo 65536.
    /// Does not wait for the connection; a worker that has just lost its connection is given up to
    /// 500 ms to end. Where the system has no descriptor or thread left, a line in the log says so
    /// and nothing is started.
    void connectSever(QString ip, int port);

    /// Stops the worker and closes the connection, from any state. Takes 100 ms, plus up to 3000 ms
    /// until the system has taken what is still pending, plus up to 500 ms for the thread. What the
    /// system has is delivered by a lingering close. Received bytes that are not parsed yet are
    /// kept.
    void close();

    /// The command frame of a record.
    QByteArray produceCmds(model_OsdParam record);

    /// Writes the bytes and waits up to 2000 ms until the system has taken them; a write that takes
    /// longer goes on by itself. Does nothing unless connected.
    void sendData(QByteArray data);

    /// Hands the record to biz_Osd_CMDSWork::addToReceiveQueue. Takes as long as that does.
    void addToReceivedQueue(model_OsdParam record);

    /// Appends to the bytes received and not yet consumed.
    void appendBuffData(QByteArray data);

    /// The first \a count of them, or all if there are fewer.
    QByteArray getBuffData(unsigned short count);

    /// Removes the first \a count of them, or all if there are fewer, and returns them.
    QByteArray takeBuffData(unsigned short count);

    /// Given the bytes that were peeked off the buffer: without "OK" among them, drops as many
    /// bytes as were peeked and returns false; else drops those before it and returns whether at
    /// least three bytes are left.
    bool isFindStdCmdPreFlag(QByteArray peeked);

    /// The parser thread's body: takes acknowledgements off the buffer until close. Blocks.
    void td_dealDataFunc();

    /// Connects the worker to its socket's signals, to the shared manager's records and to
    /// closeSocket. Every start does so.
    void sigConnect();

    /// Breaks those connections.
    void sigDisConnect();

Q_SIGNALS:
    /// Emitted by close, where the emission returns when the connection is closed, without a
    /// running worker at once; and on the worker thread 100 ms after a connection has been lost or
    /// refused. Whoever emits it while sigConnect's connections stand closes the connection.
    void closeSocket();

public Q_SLOTS:
    void onStarted();   ///< begins to connect; drops an earlier connection
    void onConnected(); ///< records and received bytes pass from now on
    void onError(QAbstractSocket::SocketError error); ///< stops the worker, whatever the error
    void onDisConnected();                            ///< stops the worker
    void onReadyRead();                               ///< moves what is there into the buffer

    /// Has the record sent if its strIP is exactly this endpoint's. Does not wait.
    void onSendDatatoDevice(model_OsdParam parameters);

    /// Waits up to 3000 ms until the system has taken what is pending, then closes the connection.
    void onCloseSocket();

private:
    friend class core_Osd_Manage;
    void shareObservers(std::shared_ptr<LinkTap> with); ///< before connectSever

    // workThread with all that lives there; outlives this if it must
    std::shared_ptr<OsdConnection> connection;
};
