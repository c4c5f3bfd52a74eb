// SPDX-License-Identifier: MIT
#include "literalosdsocket.h"

#include "biz_osd_cmdswork.h"
#include "literalosdmanage.h"

#include <QHostAddress>

#include <thread>

LiteralOsdSocket::LiteralOsdSocket(LiteralOsdManage* source) : manager(source)
{
    connect(&workThread, SIGNAL(started()), this, SLOT(onStarted()));
    moveToThread(&workThread);
}

LiteralOsdSocket::~LiteralOsdSocket()
{
    close();
}

void LiteralOsdSocket::connectSever(QString ip, int port)
{
    strIP = ip;
    nPort = port;
    workThread.start();
}

void LiteralOsdSocket::close()
{
    bDealRun = false;
    QThread::msleep(100);
    Q_EMIT closeSocket();
    workThread.quit();
    if (QThread::currentThread() != &workThread) { // or Qt warns on standard error
        workThread.wait(500);
    }
}

QByteArray LiteralOsdSocket::produceCmds(model_OsdParam record)
{
    QByteArray frame;
    frame.append(record.ch2);
    frame.append(record.ch3);
    frame.append(record.ch5);
    frame.append(record.ch4);
    frame.append(record.ch7);
    frame.append(record.ch8);
    for (int i = 0; i < record.arryData.size(); ++i) {
        frame.append(record.arryData.at(i));
    }
    frame.append(record.ch9);
    frame.append(record.ch10);
    return frame;
}

void LiteralOsdSocket::sendData(QByteArray data)
{
    if (tcpSocket != nullptr && bConnected) {
        tcpSocket->write(data);
        tcpSocket->waitForBytesWritten(2000);
    }
}

void LiteralOsdSocket::addToReceivedQueue(model_OsdParam record)
{
    // NOLINTNEXTLINE(performance-unnecessary-copy-initialization): part of what is measured
    const model_OsdParam copy = record;
    biz_Osd_CMDSWork::addToReceiveQueue(copy);
}

void LiteralOsdSocket::appendBuffData(QByteArray data)
{
    const QMutexLocker locker(&buffLock);
    buffData.append(data);
}

QByteArray LiteralOsdSocket::getBuffData(unsigned short count)
{
    const QMutexLocker locker(&buffLock);
    return buffData.mid(0, count);
}

QByteArray LiteralOsdSocket::takeBuffData(unsigned short count)
{
    const QMutexLocker locker(&buffLock);
    QByteArray taken = buffData.mid(0, count);
    buffData.remove(0, count);
    return taken;
}

bool LiteralOsdSocket::isFindStdCmdPreFlag(QByteArray peeked)
{
    const auto mark = peeked.indexOf("OK");
    if (mark < 0) {
        takeBuffData(static_cast<unsigned short>(peeked.size()));
        return false;
    }
    takeBuffData(static_cast<unsigned short>(mark));
    return getBuffData(1024).size() >= 3;
}

void LiteralOsdSocket::td_dealDataFunc()
{
    while (bDealRun) {
        QByteArray peeked;
        do {
            if (!bDealRun) {
                return;
            }
            QThread::msleep(3);
            peeked = getBuffData(1024);
        } while (peeked.size() < 3);
        if (!isFindStdCmdPreFlag(peeked)) {
            continue;
        }
        const QByteArray bytes = getBuffData(3);
        takeBuffData(3);
        model_OsdParam record;
        record.strIP = strIP;
        record.arryData = bytes;
        record.ch4 = static_cast<char>(0xff);
        std::thread(&LiteralOsdSocket::addToReceivedQueue, this, record).detach();
    }
}

void LiteralOsdSocket::sigConnect()
{
    connect(manager, SIGNAL(sigSendDatatoDevice(model_OsdParam)), this,
            SLOT(onSendDatatoDevice(model_OsdParam)), Qt::QueuedConnection);
    connect(this, SIGNAL(closeSocket()), this, SLOT(onCloseSocket()), Qt::BlockingQueuedConnection);
    connect(tcpSocket, SIGNAL(connected()), this, SLOT(onConnected()));
    connect(tcpSocket, SIGNAL(error(QAbstractSocket::SocketError)), this,
            SLOT(onError(QAbstractSocket::SocketError)));
    connect(tcpSocket, SIGNAL(disconnected()), this, SLOT(onDisConnected()));
    connect(tcpSocket, SIGNAL(readyRead()), this, SLOT(onReadyRead()));
}

void LiteralOsdSocket::sigDisConnect()
{
    disconnect(manager, nullptr, this, nullptr);
    disconnect(this, SIGNAL(closeSocket()), this, SLOT(onCloseSocket()));
    disconnect(tcpSocket, nullptr, this, nullptr);
}

void LiteralOsdSocket::onStarted()
{
    if (tcpSocket != nullptr) {
        onCloseSocket();
    }
    tcpSocket = new QTcpSocket;
    tcpSocket->bind(5104);
    sigConnect();
    bDealRun = true;
    std::thread(&LiteralOsdSocket::td_dealDataFunc, this).detach();
    tcpSocket->connectToHost(QHostAddress(strIP), static_cast<quint16>(nPort));
}

void LiteralOsdSocket::onConnected()
{
    bConnected = true;
}

void LiteralOsdSocket::onError(QAbstractSocket::SocketError /*error*/)
{
    sigDisConnect();
    close();
}

void LiteralOsdSocket::onDisConnected()
{
    sigDisConnect();
    close();
}

void LiteralOsdSocket::onReadyRead()
{
    if (tcpSocket == nullptr || !bConnected) {
        return;
    }
    while (tcpSocket->bytesAvailable() > 0) {
        appendBuffData(tcpSocket->readAll());
    }
}

void LiteralOsdSocket::onSendDatatoDevice(model_OsdParam parameters)
{
    if (parameters.strIP == strIP) {
        sendData(produceCmds(parameters));
    }
}

void LiteralOsdSocket::onCloseSocket()
{
    if (tcpSocket == nullptr) {
        return;
    }
    if (bConnected) {
        tcpSocket->disconnectFromHost();
        if (tcpSocket->state() != QAbstractSocket::UnconnectedState) { // or Qt warns
            tcpSocket->waitForDisconnected(3000);
        }
        tcpSocket->close();
        bConnected = false;
    }
    delete tcpSocket;
    tcpSocket = nullptr;
}
