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
    // One of the connections that sigConnect makes. onCloseSocket waits: as a blocking queued one,
    // it would wait for ever for a worker that has ended.
    const auto closeIfConnected = [this] {
        if (connection->isListening()) {
            onCloseSocket();
        }
    };
    connect(this, &Core_Osd_TcpSocket::closeSocket, this, closeIfConnected, Qt::DirectConnection);
    connection->endpoint.tap = tap;
    connection->endpoint.setAddress({tr("127.0.0.1"), defaultPort});
    if (parent == nullptr) { // an object with a parent cannot change its thread
        moveToThread(connection.get());
    }
}

Core_Osd_TcpSocket::~Core_Osd_TcpSocket()
{
    close();
    connection->disconnectSignals(); // a slot of closeSocket may have begun it once more
    connection->forgetOwner();
}

void Core_Osd_TcpSocket::shareObservers(std::shared_ptr<LinkTap> with)
{
    tap = std::move(with);
    connection->endpoint.tap = tap;
}

void Core_Osd_TcpSocket::connectSever(QString ip, int port)
{
    connection->endpoint.setAddress({ip, port});
    connection->begin();
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
    connection->send(data);
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
    shared->endpoint.deal([shared] { shared->look(true); });
}

void Core_Osd_TcpSocket::sigConnect()
{
    connection->connectSignals();
}

void Core_Osd_TcpSocket::sigDisConnect()
{
    connection->disconnectSignals();
}

void Core_Osd_TcpSocket::onStarted()
{
    connection->connectSignals();
    connection->open();
}

void Core_Osd_TcpSocket::onConnected()
{
    connection->onConnected();
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
    connection->look();
}

void Core_Osd_TcpSocket::onSendDatatoDevice(model_OsdParam parameters)
{
    connection->take(parameters);
}

void Core_Osd_TcpSocket::onCloseSocket()
{
    connection->closeSocket();
}
