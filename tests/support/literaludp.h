// SPDX-License-Identifier: MIT
#pragma once

#include "model_globalenum.h"
#include "model_protocoldata.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <deque>

/// What comes over UDP written down step by step, the way of a datagram from its decoding to the
/// host's queue, with nothing done on another thread: the reference that the library must agree
/// with on every sequence of datagrams. It has a queue, a flag and a log of its own.
class LiteralUdp
{
public:
    /// One turn of the receiving loop.
    void receive(const QByteArray& datagram, const QString& sender);

    model_Protocoldata getArrayData(QByteArray datagram);
    void combineSTDCMDandBloackCMD(QByteArray arrayreceived, QByteArray stdCMDIn);

    model_GlobalEnum::DeviceType deviceType = model_GlobalEnum::DeviceUnknown;
    std::deque<model_Protocoldata> receivequeueHexCmd;
    bool bRetFlag = false;
    QStringList log;

private:
    void addToReceivedQueue(model_Protocoldata record);
    void fail(const char* text);

    QString lastSender;
    QByteArray stdCMD;
};
