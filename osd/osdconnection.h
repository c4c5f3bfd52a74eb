// SPDX-License-Identifier: MIT
#pragma once

#include "model_osdparam.h"
#include "osdendpoint.h"

#include <QObject>
#include <QTcpSocket>

#include <memory>

class OsdWorkThread;

/// One endpoint's TCP connection during one run of its worker thread. It is made, used and
/// destroyed on that thread, so whatever way the run ends, its socket and its connections to
/// signals go with it.
class OsdConnection : public QObject
{
public:
    OsdConnection(std::shared_ptr<OsdEndpoint> of, std::shared_ptr<OsdEndpoint::Run> during,
                  OsdWorkThread& on);
    ~OsdConnection() override;

    /// Makes the socket, starts the parser and begins to connect; does not wait. Does nothing once
    /// the run has been stopped.
    void start();

    /// Listens to the socket, and for records to that manager if it is neither null nor gone. Doing
    /// it twice changes nothing.
    void connectSignals(const ICoreOsdBase* recordSource);
    void disconnectSignals();

    void onConnected();

    /// The connection has failed or the endpoint has hung up: ends the run and its thread.
    void onLost();

    void onReadyRead();

    /// Sends the record if it is addressed to this endpoint.
    void onSendDatatoDevice(const model_OsdParam& record);

    /// Writes the bytes and waits up to 2000 ms until the system has taken them, or until the run
    /// is stopped. Drops them if there is no connection.
    void send(const QByteArray& bytes);

    /// Sends what is pending, waiting up to 3000 ms, but not longer than the system can take or the
    /// endpoint takes something; closes the connection and deletes the socket.
    void closeSocket();

    bool event(QEvent* event) override; ///< runs an OsdCall

private:
    void onError(QAbstractSocket::SocketError error);
    void listenForRecords();
    void startParser();
    void takeAvailable();
    void takeRest();
    void dropSpare();
    void deliverPending();

    std::shared_ptr<OsdEndpoint> endpoint;
    std::shared_ptr<OsdEndpoint::Run> run;
    OsdWorkThread& workThread;
    const ICoreOsdBase* source = nullptr; // what it listens to; may be gone
    std::unique_ptr<QTcpSocket> tcpSocket;
    int spare = -1; // of the connection: Qt has closed its own when it reports that one is gone
    bool bConnected = false;
    bool parserStarted = false;
    bool readingPaused = false;
    bool writing = false;
};
