// SPDX-License-Identifier: MIT
#include "literaludp.h"

#include "literalframe.h"

#include <QDebug>

void LiteralUdp::receive(const QByteArray& datagram, const QString& sender)
{
    lastSender = sender;
    qDebug() << QStringLiteral("Recv data:") + QString::fromUtf8(datagram.constData());
    qDebug() << QStringLiteral("host ip:") + sender;
    model_Protocoldata record = getArrayData(datagram);
    record.strKey = sender;
    record.strKey2 = sender;
    record.bKeyFlag = 0;
    record.featureCode = deviceType;
    const bool isOneOfThoseWithABlock =
        record.CMD == 0x79 || record.CMD == 0xF1 || (record.CMD == 0x77 && record.DAT1 == 0x23) ||
        (record.CMD == 0x8B && record.DAT1 == 0x05) ||
        (record.CMD == 0x8B && record.DAT1 == 0x09) ||
        (record.CMD == 0x8E && record.DAT1 == 0x27) || (record.CMD == 0x69 && record.DAT1 == 0x09);
    const bool isCompleteInOneDatagram =
        (record.CMD == 0x79 && (record.DAT1 == 0x09 || record.DAT1 == 0x0C)) ||
        (record.CMD == 0xF1 && record.DAT1 == 0x40 && record.DAT3 == 0 && record.DAT4 == 0);
    // NOLINTNEXTLINE(bugprone-branch-clone): one case after the other
    if (isCompleteInOneDatagram) {
        addToReceivedQueue(record);
    } else if (isOneOfThoseWithABlock) {
        stdCMD = datagram;
    } else if (record.ADDR == 0 && record.CMD == 0 && record.CHKSUM == 0) {
        const QByteArray stored = stdCMD;
        stdCMD.clear();
        combineSTDCMDandBloackCMD(datagram, stored);
    } else {
        addToReceivedQueue(record);
    }
}

model_Protocoldata LiteralUdp::getArrayData(QByteArray datagram)
{
    model_Protocoldata record;
    if (datagram.size() != 19) {
        qDebug() << "datagram.size()!=19 return";
        record.strReply = QString::fromLatin1("");
        return record;
    }
    if (datagram.at(0) != '<' || datagram.at(1) != 'F') {
        qDebug() << "no '<' 'F' ";
        record.strReply = QString::fromLatin1("");
        return record;
    }
    if (!literalframe::getArrayData(datagram, &record)) {
        qDebug() << "CHKSUM Wrong return";
        log << QStringLiteral("CHKSUM Wrong return");
    }
    return record;
}

void LiteralUdp::combineSTDCMDandBloackCMD(QByteArray arrayreceived, QByteArray stdCMDIn)
{
    if (arrayreceived.isEmpty() || stdCMDIn.isEmpty()) {
        fail("arrayreceived.isEmpty()||stdCMDIn.isEmpty()");
        return;
    }
    model_Protocoldata record = getArrayData(stdCMDIn);
    record.strKey = lastSender;
    record.strKey2 = lastSender;
    record.bKeyFlag = 0;
    record.featureCode = deviceType;
    int fixedLength = 0;
    if (record.CMD == 0x8B && record.DAT1 == 0x05) {
        fixedLength = 145;
    } else if ((record.CMD == 0x8B && record.DAT1 == 0x09) ||
               (record.CMD == 0x77 && record.DAT1 == 0x23) ||
               (record.CMD == 0x69 && record.DAT1 == 0x09)) {
        fixedLength = 129;
    }
    if (fixedLength != 0) {
        record.arryDatablock = arrayreceived.mid(0, fixedLength);
        addToReceivedQueue(record);
        return;
    }
    const auto announced = static_cast<short>(record.DAT4 * 256 + record.DAT3);
    if (announced == 0) {
        qDebug() << "arraylen=!arrayreceived.length()";
        fail("arraylen=!arrayreceived.size() return");
        return;
    }
    if (announced < 0) {
        record.arryDatablock = arrayreceived;
    } else {
        record.arryDatablock = arrayreceived.mid(0, announced);
    }
    qDebug() << "dataLeng = " << announced << record.arryDatablock.size();
    if (announced != record.arryDatablock.size()) {
        fail("combineTwoByte(parameters.DAT3, parameters.DAT4) != "
             "parameters.arryDatablock.size() return");
        return;
    }
    addToReceivedQueue(record);
}

void LiteralUdp::addToReceivedQueue(model_Protocoldata record)
{
    receivequeueHexCmd.push_back(record);
    bRetFlag = true;
}

void LiteralUdp::fail(const char* text)
{
    bRetFlag = true;
    qDebug() << text;
    log << QString::fromLatin1(text);
}
