// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QString>

/// One device command or one device reply. A value type: copies share the texts and the block until
/// one of them is written, so a copy costs no payload.
///
/// The command body is HEAD ADDR CMD DAT1 DAT2 DAT3 DAT4 CHKSUM, one byte each; DAT4 * 256 + DAT3
/// is the length in bytes of the block that follows, where one follows.
class model_Protocoldata
{
public:
    QString strKey;      ///< UDP: target address when sending, sender's address when received
    quint8 bKeyFlag = 0; ///< origin of a reply: 0 UDP, 1 serial, 2 USB, 21 USB immediate reply
    QString strKey2;     ///< origin of a reply: sender's address, port name, or "USB"
    quint8 HEAD = 0;     ///< body byte 0; not carried by the binary frame
    quint16 aux1 = 0;    ///< binary frame bytes 0-1 when encoding
    quint16 aux2 = 0;    ///< binary frame bytes 0-1 when decoding
    quint8 aux3 = 0;     ///< binary frame byte 3
    quint16 aux4 = 0;    ///< binary frame bytes 4-5
    quint16 aux5 = 0;    ///< binary frame bytes 6-7
    quint16 aux6 = 0;    ///< binary frame bytes 8-9: block length in bytes
    quint8 ADDR = 0;     ///< body byte 1
    quint8 CMD = 0;      ///< body byte 2: command code
    quint8 DAT1 = 0;     ///< body byte 3: sub-code
    quint8 DAT2 = 0;     ///< body byte 4
    quint8 DAT3 = 0;     ///< body byte 5: low byte of the block length
    quint8 DAT4 = 0;     ///< body byte 6: high byte of the block length
    quint8 CHKSUM = 0;   ///< body byte 7: sum of the bytes before it, modulo 256
    qint32 aux7 = 0;     ///< carried unchanged, never read by the links
    QString strReply;    ///< set to the empty text by a failed UDP decode
    QByteArray
        arryDatablock;      ///< block bytes: sent raw behind the frame, filled from a reply's block
    quint8 sendMode = 0;    ///< UDP: 0 to the device address, 1 broadcast, others are refused
    qint32 featureCode = 0; ///< sending: routing code; received: the link's device type
};
