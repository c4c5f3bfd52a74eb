// SPDX-License-Identifier: MIT
#include "core_osd_tcpsocket.h"

#include "biz_osd_cmdswork.h"
#include "osdconnection.h"
#include "osdframe.h"

namespace
{

constexpr std::chrono::milliseconds stopPause{100}; // for the parser to come to its end
constexpr unsigned long endWaitMs = 500;
constexpr int defaultPort = 10001;

} // namespace

Core_Osd_TcpSocket::Core_Osd_TcpSocket(QObject* parent)
    : QObject(parent), connection(std::make_shared<OsdConnection>(this))
{
    qRegisterMetaType<QAbstractSocket::SocketError>("QAbstractSocket::SocketError");
    connection->endpoint.setAddress({tr("127.0.0.1"), defaultPort});
    if (parent == nullptr) { // an object with a parent cannot change its thread
        moveToThread(connection.get());
    }
}

Core_Osd_TcpSocket::~Core_Osd_TcpSocket()
{
    close();
    connection->forgetOwner();
}

void Core_Osd_TcpSocket::connectSever(QString ip, int port)
{
    connection->endpoint.setAddress({ip, port});
    if (connection->begin()) {
        connectCloseSocket();
    }
}

// onCloseSocket itself waits for the worker: as a blocking queued connection, this would wait for
// ever for a worker that has ended.
void Core_Osd_TcpSocket::connectCloseSocket()
{
    connect(this, &Core_Osd_TcpSocket::closeSocket, this, &Core_Osd_TcpSocket::onCloseSocket,
            static_cast<Qt::ConnectionType>(Qt::DirectConnection | Qt::UniqueConnection));
}

void Core_Osd_TcpSocket::close()
{
    connection->endpoint.token.set(false);
    std::this_thread::sleep_for(stopPause);
    Q_EMIT closeSocket();
    connection->quit();
    if (QThread::currentThread() != connection.get()) {
        connection->wait(endWaitMs);
    }
}

QByteArray Core_Osd_TcpSocket::produceCmds(model_OsdParam record)
{
    return osdframe::encode(record);
}

void Core_Osd_TcpSocket::sendData(QByteArray data)
{
    connection->call([data](OsdConnection& to) { to.send(data); });
}

void Core_Osd_TcpSocket::addToReceivedQueue(model_OsdParam record)
{
    biz_Osd_CMDSWork::addToReceiveQueue(record);
}

void Core_Osd_TcpSocket::appendBuffData(QByteArray data)
{
    connection->endpoint.received.append(data);
}

QByteArray Core_Osd_TcpSocket::getBuffData(unsigned short count)
{
    return connection->endpoint.received.peek(count);
}

QByteArray Core_Osd_TcpSocket::takeBuffData(unsigned short count)
{
    return connection->endpoint.received.take(count);
}

bool Core_Osd_TcpSocket::isFindStdCmdPreFlag(QByteArray peeked)
{
    return connection->endpoint.findAcknowledgement(peeked);
}

void Core_Osd_TcpSocket::td_dealDataFunc()
{
    const auto shared = connection;
    shared->endpoint.deal();
}

void Core_Osd_TcpSocket::sigConnect()
{
    connectCloseSocket();
    connection->call(&OsdConnection::connectSignals);
}

void Core_Osd_TcpSocket::sigDisConnect()
{
    disconnect(this, &Core_Osd_TcpSocket::closeSocket, this, &Core_Osd_TcpSocket::onCloseSocket);
    connection->call(&OsdConnection::disconnectSignals);
}

void Core_Osd_TcpSocket::onStarted()
{
    connectCloseSocket();
    connection->call([](OsdConnection& to) {
        to.connectSignals();
        to.open();
    });
}

void Core_Osd_TcpSocket::onConnected()
{
    connection->call(&OsdConnection::onConnected);
}

void Core_Osd_TcpSocket::onError(QAbstractSocket::SocketError /*error*/)
{
    sigDisConnect();
    close();
}

void Core_Osd_TcpSocket::onDisConnected()
{
    onError(QAbstractSocket::RemoteHostClosedError);
}

void Core_Osd_TcpSocket::onReadyRead()
{
    connection->call(&OsdConnection::onReadyRead);
}

void Core_Osd_TcpSocket::onSendDatatoDevice(model_OsdParam parameters)
{
    connection->take(parameters);
}

void Core_Osd_TcpSocket::onCloseSocket()
{
    connection->call(&OsdConnection::closeSocket);
}
