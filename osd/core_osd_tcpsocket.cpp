// SPDX-License-Identifier: MIT
#include "core_osd_tcpsocket.h"

#include "biz_osd_cmdswork.h"
#include "osdconnection.h"
#include "osdendpoint.h"
#include "osdframe.h"
#include "osdrecordsource.h"
#include "osdworkthread.h"

#include <QCoreApplication>
#include <QNetworkSession>
#include <QSharedPointer>

#include <chrono>
#include <thread>

namespace
{

constexpr std::chrono::milliseconds stopPause{100}; // for the parser to come to its end

// Qt registers this when a process first connects. Endpoints do so on several threads at once, and
// all but one would make it print a warning.
void registerNetworkSession()
{
    QT_WARNING_PUSH
    QT_WARNING_DISABLE_DEPRECATED
    qRegisterMetaType<QSharedPointer<QNetworkSession>>();
    QT_WARNING_POP
}

} // namespace

Core_Osd_TcpSocket::Core_Osd_TcpSocket(QObject* parent)
    : QObject(parent), endpoint(std::make_shared<OsdEndpoint>()),
      workThread(new OsdWorkThread(endpoint)), caller(std::make_unique<QObject>())
{
    qRegisterMetaType<QAbstractSocket::SocketError>("QAbstractSocket::SocketError");
    registerNetworkSession();
    endpoint->setAddress(tr("127.0.0.1"), endpoint->port());
    connect(
        workThread, &OsdWorkThread::lost, caller.get(), [this] { tellLoss(); },
        Qt::QueuedConnection);
    if (parent == nullptr) { // an object with a parent cannot change its thread
        moveToThread(workThread);
    }
}

Core_Osd_TcpSocket::~Core_Osd_TcpSocket()
{
    close();
    OsdWorkThread::release(workThread);
}

void Core_Osd_TcpSocket::connectSever(QString ip, int port)
{
    if (caller->thread() == QThread::currentThread()) {
        QCoreApplication::sendPostedEvents(caller.get(), QEvent::MetaCall); // an earlier loss
    }
    endpoint->setAddress(ip, port);
    if (!endpoint->run()->deals()) {
        workThread->waitForEnd();
    }
    if (!workThread->isRunning()) {
        endpoint->beginRun();
        connectCloseSocket();
        workThread->start();
    }
}

// onCloseSocket itself waits for the worker: as a blocking queued connection, this would wait for
// ever for a worker that has ended.
void Core_Osd_TcpSocket::connectCloseSocket()
{
    connect(this, &Core_Osd_TcpSocket::closeSocket, this, &Core_Osd_TcpSocket::onCloseSocket,
            static_cast<Qt::ConnectionType>(Qt::DirectConnection | Qt::UniqueConnection));
}

void Core_Osd_TcpSocket::disconnectCloseSocket()
{
    disconnect(this, &Core_Osd_TcpSocket::closeSocket, this, &Core_Osd_TcpSocket::onCloseSocket);
}

// The worker itself closes what it has lost, and what has been started since is none of it.
void Core_Osd_TcpSocket::tellLoss()
{
    if (!endpoint->run()->deals()) {
        disconnectCloseSocket();
        Q_EMIT closeSocket();
    }
}

void Core_Osd_TcpSocket::close()
{
    endpoint->run()->stop();
    std::this_thread::sleep_for(stopPause);
    Q_EMIT closeSocket();
    workThread->quit();
    workThread->waitForEnd();
}

QByteArray Core_Osd_TcpSocket::produceCmds(model_OsdParam record)
{
    return osdframe::encode(record);
}

void Core_Osd_TcpSocket::sendData(QByteArray data)
{
    workThread->call([data](OsdConnection& connection) { connection.send(data); });
}

void Core_Osd_TcpSocket::addToReceivedQueue(model_OsdParam record)
{
    biz_Osd_CMDSWork::addToReceiveQueue(record);
}

void Core_Osd_TcpSocket::appendBuffData(QByteArray data)
{
    endpoint->received().append(data);
}

QByteArray Core_Osd_TcpSocket::getBuffData(unsigned short count)
{
    return endpoint->received().peek(count);
}

QByteArray Core_Osd_TcpSocket::takeBuffData(unsigned short count)
{
    return endpoint->received().take(count);
}

bool Core_Osd_TcpSocket::isFindStdCmdPreFlag(QByteArray peeked)
{
    return endpoint->findAcknowledgement(peeked);
}

void Core_Osd_TcpSocket::td_dealDataFunc()
{
    const auto shared = endpoint;
    const auto run = shared->run();
    shared->deal(*run);
}

void Core_Osd_TcpSocket::sigConnect()
{
    connectCloseSocket();
    workThread->call([source = osdrecordsource::shared()](OsdConnection& connection) {
        connection.connectSignals(source);
    });
}

void Core_Osd_TcpSocket::sigDisConnect()
{
    disconnectCloseSocket();
    workThread->call([](OsdConnection& connection) { connection.disconnectSignals(); });
}

void Core_Osd_TcpSocket::onStarted()
{
    workThread->call([](OsdConnection& connection) { connection.start(); });
}

void Core_Osd_TcpSocket::onConnected()
{
    workThread->call([](OsdConnection& connection) { connection.onConnected(); });
}

void Core_Osd_TcpSocket::onError(QAbstractSocket::SocketError /*error*/)
{
    sigDisConnect();
    close();
}

void Core_Osd_TcpSocket::onDisConnected()
{
    sigDisConnect();
    close();
}

void Core_Osd_TcpSocket::onReadyRead()
{
    workThread->call([](OsdConnection& connection) { connection.onReadyRead(); });
}

void Core_Osd_TcpSocket::onSendDatatoDevice(model_OsdParam parameters)
{
    workThread->call(
        [parameters](OsdConnection& connection) { connection.onSendDatatoDevice(parameters); });
}

void Core_Osd_TcpSocket::onCloseSocket()
{
    workThread->call([](OsdConnection& connection) { connection.closeSocket(); });
}
