// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QMetaType>
#include <QString>

/// One on-screen-display command or acknowledgement. A value type that shares its data on copy.
///
/// A command goes out as ch2 ch3 ch5 ch4 ch7 ch8, the bytes of arryData, ch9 ch10.
class model_OsdParam
{
public:
    char ch0 = 0;        ///< carried, never sent
    char ch1 = 0;        ///< carried, never sent
    char ch2 = 0;        ///< byte 0
    char ch3 = 0;        ///< byte 1
    char ch4 = 0;        ///< byte 3; 0xFF in an acknowledgement
    char ch5 = 0;        ///< byte 2
    char ch6 = 0;        ///< carried, never sent
    char ch7 = 0;        ///< byte 4
    char ch8 = 0;        ///< byte 5
    char ch9 = 0;        ///< the byte behind arryData
    char ch10 = 0;       ///< the last byte
    QString strIP;       ///< address text of the endpoint that the record is for, or came from
    qint32 nParam1 = 0;  ///< carried, never sent
    qint32 nParam2 = 0;  ///< carried, never sent
    QString strParam;    ///< carried, never sent
    QByteArray arryData; ///< data of a command; the three bytes of an acknowledgement
    qint32 nParam3 = 0;  ///< carried, never sent
};

Q_DECLARE_METATYPE(model_OsdParam)
