// SPDX-License-Identifier: MIT
#pragma once

#include "model_osdparam.h"

#include <QMutex>
#include <QObject>
#include <QTcpSocket>
#include <QThread>

class LiteralOsdManage;

/// An endpoint's client written down step by step, as one would write it the first time: the
/// baseline that the library's is measured against. It only survives being closed once, from
/// connected, from another thread.
class LiteralOsdSocket : public QObject
{
    Q_OBJECT

public:
    explicit LiteralOsdSocket(LiteralOsdManage* source);
    ~LiteralOsdSocket() override;

    void connectSever(QString ip, int port);
    void close();
    QByteArray produceCmds(model_OsdParam record);

Q_SIGNALS:
    void closeSocket();

public Q_SLOTS:
    void onStarted();
    void onConnected();
    void onError(QAbstractSocket::SocketError error);
    void onDisConnected();
    void onReadyRead();
    void onSendDatatoDevice(model_OsdParam parameters);
    void onCloseSocket();

private:
    void sendData(QByteArray data);
    void addToReceivedQueue(model_OsdParam record);
    void appendBuffData(QByteArray data);
    QByteArray getBuffData(unsigned short count);
    QByteArray takeBuffData(unsigned short count);
    bool isFindStdCmdPreFlag(QByteArray peeked);
    void td_dealDataFunc();
    void sigConnect();
    void sigDisConnect();

    LiteralOsdManage* manager;
    QByteArray buffData;
    QMutex buffLock;
    bool bDealRun = true;
    QThread workThread;
    QTcpSocket* tcpSocket = nullptr;
    QString strIP = tr("127.0.0.1");
    int nPort = 10001;
    bool bConnected = false;
};
