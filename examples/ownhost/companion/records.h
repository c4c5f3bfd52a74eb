// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QMetaType>
#include <QString>

// The records of this company's programs. libCore_Manage lays down the members and their order;
// names of other members, functions and comments are the host's own. Everything is inline, so
// nothing needs to be exported.

class model_GlobalEnum
{
public:
    enum DeviceType : qint32 { AnyDevice = 0, WallPanel = 0x353101, DoorUnit = 0x290200 };
};

class model_Protocoldata
{
public:
    QString strKey;
    quint8 bKeyFlag = 0;
    QString strKey2;
    quint8 HEAD = 0;
    quint16 aux1 = 0, aux2 = 0;
    quint8 aux3 = 0;
    quint16 aux4 = 0, aux5 = 0, aux6 = 0;
    quint8 ADDR = 0, CMD = 0, DAT1 = 0, DAT2 = 0, DAT3 = 0, DAT4 = 0, CHKSUM = 0;
    qint32 aux7 = 0;
    QString strReply;
    QByteArray arryDatablock;
    quint8 sendMode = 0;
    qint32 featureCode = 0;
};

class model_OsdParam
{
public:
    char ch0 = 0, ch1 = 0, ch2 = 0, ch3 = 0, ch4 = 0, ch5 = 0, ch6 = 0, ch7 = 0, ch8 = 0;
    char ch9 = 0, ch10 = 0;
    QString strIP;
    qint32 nParam1 = 0, nParam2 = 0;
    QString strParam;
    QByteArray arryData;
    qint32 nParam3 = 0;
};

Q_DECLARE_METATYPE(model_OsdParam)
