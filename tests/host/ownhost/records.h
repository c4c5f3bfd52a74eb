// SPDX-License-Identifier: MIT
#pragma once

// A host of its own: other names, other layout of its files, its own extras. Only what the library
// requires is the same.

#include <QByteArray>
#include <QMetaType>
#include <QString>

#define OWN_HOST_API __attribute__((visibility("default")))

class OWN_HOST_API model_GlobalEnum
{
public:
    enum DeviceType : qint32 { PlainUnit = 0, PanelUnit = 0x353101 };
};

class OWN_HOST_API model_Protocoldata
{
public:
    model_Protocoldata();
    model_Protocoldata(const model_Protocoldata& other);
    model_Protocoldata& operator=(const model_Protocoldata& other);
    ~model_Protocoldata();

    QString strKey;
    unsigned char bKeyFlag;
    QString strKey2;
    unsigned char HEAD;
    unsigned short aux1;
    unsigned short aux2;
    unsigned char aux3;
    unsigned short aux4;
    unsigned short aux5;
    unsigned short aux6;
    unsigned char ADDR;
    unsigned char CMD;
    unsigned char DAT1;
    unsigned char DAT2;
    unsigned char DAT3;
    unsigned char DAT4;
    unsigned char CHKSUM;
    int aux7;
    QString strReply;
    QByteArray arryDatablock;
    unsigned char sendMode;
    int featureCode;
};

class OWN_HOST_API model_OsdParam
{
public:
    char ch0 = 0, ch1 = 0, ch2 = 0, ch3 = 0, ch4 = 0, ch5 = 0, ch6 = 0, ch7 = 0, ch8 = 0, ch9 = 0,
         ch10 = 0;
    QString strIP;
    int nParam1 = 0;
    int nParam2 = 0;
    QString strParam;
    QByteArray arryData;
    int nParam3 = 0;
};

Q_DECLARE_METATYPE(model_OsdParam)
