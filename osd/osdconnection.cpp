// SPDX-License-Identifier: MIT
#include "osdconnection.h"

#include "core_osd_manage.h"
#include "detachedthread.h"
#include "fixedlocalport.h"
#include "osdcall.h"
#include "osdframe.h"
#include "osdrecordsource.h"
#include "osdworkthread.h"

#include <QElapsedTimer>
#include <QHostAddress>
#include <QTimer>

#include <array>

#include <fcntl.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

constexpr int writeWaitMs = 2000;
constexpr int writeWaitSliceMs = 10; // how soon a write notices that the run has been stopped
constexpr int disconnectWaitMs = 3000;
constexpr int deliveryLookMs = 1;
constexpr int stalledMs = 1000; // an endpoint that takes nothing for so long is not waited for
constexpr int parserRetryMs = 10;

// An endpoint that sends faster than its acknowledgements can be taken is held back by TCP instead
// of filling the memory.
constexpr int mostUnparsed = 16 * 1024 * 1024;
constexpr int socketReadBuffer = 64 * 1024;
constexpr int heldBackMs = 20;

qint64 bytesOnTheirWay(const QTcpSocket& socket)
{
    int unacknowledged = 0;
    if (ioctl(static_cast<int>(socket.socketDescriptor()), SIOCOUTQ, &unacknowledged) != 0) {
        unacknowledged = 0;
    }
    return socket.bytesToWrite() + unacknowledged;
}

bool hasHungUp(const QTcpSocket& socket)
{
    pollfd connection{static_cast<int>(socket.socketDescriptor()), POLLRDHUP, 0};
    return poll(&connection, 1, 0) > 0;
}

} // namespace

OsdConnection::OsdConnection(std::shared_ptr<OsdEndpoint> of,
                             std::shared_ptr<OsdEndpoint::Run> during, OsdWorkThread& on)
    : endpoint(std::move(of)), run(std::move(during)), workThread(on)
{
}

OsdConnection::~OsdConnection()
{
    disconnectSignals();
    dropSpare();
    run->stop(); // a host may have begun it while its thread was being ended
}

bool OsdConnection::event(QEvent* event)
{
    workThread.takeOver();
    if (event->type() != OsdCall::type) {
        return QObject::event(event);
    }
    static_cast<OsdCall*>(event)->run(*this);
    return true;
}

void OsdConnection::start()
{
    closeSocket();
    if (!run->deals()) {
        return;
    }
    tcpSocket = std::make_unique<QTcpSocket>();
    // A port that is taken is no error, any other one will do. But a socket that has once failed
    // keeps that error, and hangs up when a later wait runs out.
    if (!tcpSocket->bind(fixedLocalPort())) {
        tcpSocket = std::make_unique<QTcpSocket>();
    }
    tcpSocket->setReadBufferSize(socketReadBuffer);
    connectSignals(run->source());
    startParser();
    tcpSocket->connectToHost(QHostAddress(endpoint->ip()), static_cast<quint16>(endpoint->port()));
}

void OsdConnection::connectSignals(const ICoreOsdBase* recordSource)
{
    disconnectSignals();
    source = recordSource;
    listenForRecords();
    if (tcpSocket) {
        QTcpSocket* const socket = tcpSocket.get();
        connect(socket, &QTcpSocket::connected, this, &OsdConnection::onConnected);
        connect(socket, &QTcpSocket::errorOccurred, this, &OsdConnection::onError);
        connect(socket, &QTcpSocket::disconnected, this, &OsdConnection::onLost);
        connect(socket, &QTcpSocket::readyRead, this, &OsdConnection::onReadyRead);
    }
}

void OsdConnection::listenForRecords()
{
    osdrecordsource::use(source, [this](core_Osd_Manage& shared) {
        connect(&shared, &core_Osd_Manage::sigSendDatatoDevice, this,
                &OsdConnection::onSendDatatoDevice, Qt::QueuedConnection);
    });
}

void OsdConnection::disconnectSignals()
{
    osdrecordsource::use(source, [this](core_Osd_Manage& shared) { shared.disconnect(this); });
    if (tcpSocket) {
        tcpSocket->disconnect(this);
    }
}

void OsdConnection::startParser()
{
    if (parserStarted || !run->deals()) {
        return;
    }
    parserStarted = startDetached([shared = endpoint, during = run] { shared->deal(*during); });
    if (!parserStarted) {
        QTimer::singleShot(parserRetryMs, this, &OsdConnection::startParser);
    }
}

void OsdConnection::onConnected()
{
    bConnected = true;
    dropSpare();
    spare = fcntl(static_cast<int>(tcpSocket->socketDescriptor()), F_DUPFD_CLOEXEC, 0);
}

// A write that has not been taken within its wait is reported as an error by Qt; here it is none.
void OsdConnection::onError(QAbstractSocket::SocketError error)
{
    if (!writing || error != QAbstractSocket::SocketTimeoutError) {
        onLost();
    }
}

void OsdConnection::onLost()
{
    disconnectSignals();
    takeRest();
    run->stop();
    Q_EMIT workThread.lost();
    workThread.quit();
}

void OsdConnection::onReadyRead()
{
    if (readingPaused || !tcpSocket || !bConnected) {
        return;
    }
    // Once a hang-up is there, nothing more can come than the system holds already.
    if (endpoint->received().size() < mostUnparsed || hasHungUp(*tcpSocket)) {
        takeAvailable();
        return;
    }
    readingPaused = true;
    QTimer::singleShot(heldBackMs, this, [this] {
        readingPaused = false;
        onReadyRead();
    });
}

void OsdConnection::takeAvailable()
{
    while (tcpSocket && bConnected && tcpSocket->bytesAvailable() > 0) {
        endpoint->received().append(tcpSocket->readAll());
    }
}

// What the connection that is gone has left, also what a reset kept Qt from reading.
void OsdConnection::takeRest()
{
    takeAvailable();
    std::array<char, socketReadBuffer> bytes{};
    ssize_t size = 0;
    for (int total = 0; spare >= 0 && total < mostUnparsed; total += static_cast<int>(size)) {
        size = recv(spare, bytes.data(), bytes.size(), MSG_DONTWAIT);
        if (size <= 0) {
            break;
        }
        endpoint->received().append(QByteArray(bytes.data(), static_cast<int>(size)));
    }
    dropSpare();
}

void OsdConnection::dropSpare()
{
    if (spare >= 0) {
        close(spare);
        spare = -1;
    }
}

void OsdConnection::onSendDatatoDevice(const model_OsdParam& record)
{
    if (endpoint->isAddressedBy(record.strIP)) {
        send(osdframe::encode(record));
    }
}

void OsdConnection::send(const QByteArray& bytes)
{
    if (!tcpSocket || !bConnected || tcpSocket->state() != QAbstractSocket::ConnectedState) {
        return;
    }
    writing = true;
    tcpSocket->write(bytes); // and the wait sends it, and reads what has come
    QElapsedTimer waited;
    waited.start();
    // A stop takes what is left along: closing sends it.
    while (tcpSocket->bytesToWrite() > 0 && tcpSocket->state() == QAbstractSocket::ConnectedState &&
           run->deals() && waited.elapsed() < writeWaitMs) {
        tcpSocket->waitForBytesWritten(writeWaitSliceMs);
    }
    writing = false;
}

// What is unread when a socket is closed makes the system reset the connection, which throws away
// whatever is still on its way. So acknowledgements are read until the endpoint's system has
// everything, or has stopped taking it: what it takes later it gets from this system.
void OsdConnection::deliverPending()
{
    QElapsedTimer waited;
    QElapsedTimer stalled;
    waited.start();
    stalled.start();
    qint64 before = 0;
    while (tcpSocket->state() == QAbstractSocket::ConnectedState &&
           waited.elapsed() < disconnectWaitMs) {
        const qint64 left = bytesOnTheirWay(*tcpSocket);
        if (left != before) {
            before = left;
            stalled.restart();
        }
        if (left == 0 || (tcpSocket->bytesToWrite() == 0 && stalled.hasExpired(stalledMs))) {
            break;
        }
        if (tcpSocket->bytesToWrite() > 0) {
            tcpSocket->waitForBytesWritten(writeWaitSliceMs);
        } else {
            tcpSocket->waitForReadyRead(deliveryLookMs);
        }
        if (endpoint->received().size() < mostUnparsed) {
            takeAvailable();
        }
    }
    tcpSocket->waitForReadyRead(0);
}

void OsdConnection::closeSocket()
{
    if (!tcpSocket) {
        return;
    }
    // Hanging up is no loss: neither of these may end the thread under this function's feet.
    disconnect(tcpSocket.get(), &QTcpSocket::errorOccurred, this, nullptr);
    disconnect(tcpSocket.get(), &QTcpSocket::disconnected, this, nullptr);
    if (bConnected) {
        deliverPending();
        dropSpare();
        tcpSocket->disconnectFromHost();
        takeAvailable();
        tcpSocket->close();
        bConnected = false;
    }
    tcpSocket.reset();
}
