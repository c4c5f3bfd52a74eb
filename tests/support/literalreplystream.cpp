// SPDX-License-Identifier: MIT
#include "literalreplystream.h"

#include "biz_cmdswork.h"
#include "literalframe.h"
#include "utility_manage.h"

#include <QDebug>
#include <QLoggingCategory>
#include <QMutexLocker>

#include <chrono>
#include <thread>

LiteralReplyStream::~LiteralReplyStream() = default;

void LiteralReplyStream::appendBuffData(QByteArray data)
{
    QMutexLocker locker(&buffLock);
    buffData.append(data);
}

QByteArray LiteralReplyStream::getBuffData(unsigned short n)
{
    QMutexLocker locker(&buffLock);
    return buffData.left(n);
}

QByteArray LiteralReplyStream::takeBuffData(unsigned short n)
{
    QMutexLocker locker(&buffLock);
    const auto k = qMin(static_cast<int>(n), buffData.size());
    QByteArray taken = buffData.left(k);
    buffData.remove(0, k);
    return taken;
}

void LiteralReplyStream::loopOnce()
{
    pause(usb ? 20 : 3);
    pass();
}

void LiteralReplyStream::pass()
{
    QByteArray work = getBuffData(1024);
    if (work.size() < 19) {
        return;
    }
    if (!isFindStdCmdPreFlag(work)) {
        return;
    }
    work = getBuffData(1024);
    if (work.size() >= 19) {
        if (work.at(0) == '<' && work.at(1) == 'F' && work.at(18) == '>') {
            checkCMD(work);
        } else {
            takeBuffData(1);
        }
    }
}

bool LiteralReplyStream::isFindStdCmdPreFlag(QByteArray data)
{
    const auto index = data.indexOf('<');
    if (index < 0) {
        takeBuffData(static_cast<unsigned short>(data.size()));
        return false;
    }
    takeBuffData(static_cast<unsigned short>(index));
    data = getBuffData(1024);
    if (data.size() < 2) {
        return false;
    }
    if (data.at(1) == 'F') {
        return true;
    }
    takeBuffData(1);
    return false;
}

bool LiteralReplyStream::checkCMD(QByteArray data)
{
    if (data.size() < 19) {
        return false;
    }
    const QByteArray frame = data.left(19);
    model_Protocoldata record;
    if (!literalframe::getArrayData(frame, &record)) {
        const QString digits = QString::fromLocal8Bit(frame.mid(2, 16).constData());
        qDebug() << (usb ? QStringLiteral("Core_USB::getArrayData   dataStr==")
                         : QStringLiteral("Core_SerialPort::getArrayData   dataStr==")) +
                        digits;
        takeBuffData(1);
        return false;
    }
    takeBuffData(19);
    const QString text = QString::fromUtf8(frame.constData());
    const unsigned short announced = static_cast<unsigned short>(record.DAT4 * 256 + record.DAT3);
    unsigned short len = 0;
    QString failure;
    if (record.CMD == 0x79 && record.DAT1 == 0x0C) {
        record.strKey2 = usb ? QStringLiteral("USB") : portName;
        record.bKeyFlag = usb ? 21 : 1;
        record.featureCode = deviceType;
        addToReceivedQueue(record);
        return true;
    }
    if (record.CMD == 0x79 || record.CMD == 0xF1 || (record.CMD == 0x8E && record.DAT1 == 0x27)) {
        len = announced;
        failure =
            usb ? QStringLiteral("1CheckBlock default:") : QStringLiteral("CheckBlock default:");
    } else if (record.CMD == 0x8B && record.DAT1 == 0x05) {
        len = 145;
        failure =
            usb ? QStringLiteral("3CheckBlock default:") : QStringLiteral("CheckBlock default:");
    } else if ((record.CMD == 0x77 && record.DAT1 == 0x23) ||
               (record.CMD == 0x69 && record.DAT1 == 0x09) ||
               (record.CMD == 0x8B && record.DAT1 == 0x09)) {
        len = 129;
        if (!usb && record.CMD == 0x69 && Utility_Manage::getDeviceType() == 0x290200) {
            len = 33;
        }
        failure =
            usb ? QStringLiteral("2CheckBlock default:") : QStringLiteral("CheckBlock default:");
    } else {
        qDebug() << QStringLiteral("Recv data:") + text;
        record.strKey2 = usb ? QStringLiteral("USB") : portName;
        record.bKeyFlag = usb ? 2 : 1;
        record.featureCode = deviceType;
        addToReceivedQueueElsewhere(record);
        return true;
    }
    if (!checkBlock(record, len)) {
        qDebug() << QStringLiteral("Recv data:") + text << failure;
        return false;
    }
    qDebug() << QStringLiteral("Recv data:") + text;
    return true;
}

bool LiteralReplyStream::checkBlock(model_Protocoldata record, unsigned short len)
{
    QByteArray block;
    if (len != 0) {
        if (!awaitBlock(len, &block)) {
            return false;
        }
        takeBuffData(len);
        unsigned char sum = 0;
        for (int i = 0; i < len - 1; i++) {
            sum = static_cast<unsigned char>(sum + static_cast<unsigned char>(block.at(i)));
        }
        if (sum != static_cast<unsigned char>(block.at(len - 1))) {
            return false;
        }
    }
    if (!usb) {
        record.strKey2 = portName;
    }
    record.bKeyFlag = usb ? 2 : 1;
    record.featureCode = deviceType;
    record.arryDatablock = block;
    addToReceivedQueue(record);
    return true;
}

bool LiteralReplyStream::awaitBlock(unsigned short len, QByteArray* block)
{
    for (int look = 0; look < 150; look++) {
        *block = getBuffData(len);
        if (block->size() == len) {
            return true;
        }
        pause(4);
    }
    return false;
}

void LiteralReplyStream::pause(int ms)
{
    std::this_thread::sleep_for(std::chrono::milliseconds(ms));
}

void LiteralReplyStream::addToReceivedQueue(model_Protocoldata record)
{
    std::lock_guard<std::mutex> lock(biz_CMDSWork::receiveHexCmdlock);
    biz_CMDSWork::receivequeueHexCmd.push_back(record);
    std::lock_guard<std::mutex> flagLock(biz_CMDSWork::HexCmdlock);
    biz_CMDSWork::bRetFlag = true;
}

void LiteralReplyStream::addToReceivedQueueElsewhere(model_Protocoldata record)
{
    std::thread([this, record] { addToReceivedQueue(record); }).detach();
}

void LiteralBinaryReplyStream::pass()
{
    QByteArray work = getBuffData(1024);
    if (work.size() < 16) {
        return;
    }
    if (!isFindStdCmdPreFlag(work)) {
        return;
    }
    work = getBuffData(1024);
    if (work.size() >= 16) {
        checkCMD(work);
    }
}

bool LiteralBinaryReplyStream::isFindStdCmdPreFlag(QByteArray data)
{
    const auto index = data.indexOf(QByteArray("\xF1\x1F", 2));
    if (index < 0) {
        takeBuffData(static_cast<unsigned short>(data.size()));
        return false;
    }
    takeBuffData(static_cast<unsigned short>(index));
    return true;
}

bool LiteralBinaryReplyStream::checkCMD(QByteArray data)
{
    if (data.size() < 16) {
        return false;
    }
    model_Protocoldata record;
    record.CMD = 0xF1;
    record.DAT1 = 0xFF;
    record.DAT2 = 0xFF;
    if (!literalframe::decodeBinary(data.left(16), &record)) {
        takeBuffData(1);
        return false;
    }
    takeBuffData(16);
    const unsigned short n = record.aux6;
    QByteArray block;
    if (n != 0) {
        if (!awaitBlock(n, &block)) {
            addToReceivedQueue(record);
            return false;
        }
    }
    takeBuffData(n);
    unsigned char sum = 0;
    for (int i = 0; i < n - 1; i++) {
        sum = static_cast<unsigned char>(sum + static_cast<unsigned char>(block.at(i)));
    }
    if (n != 0 && sum != static_cast<unsigned char>(block.at(n - 1))) {
        addToReceivedQueue(record);
        return false;
    }
    record.strKey2 = portName;
    record.bKeyFlag = 1;
    record.featureCode = deviceType;
    record.arryDatablock = block.left(n - 1);
    addToReceivedQueue(record);
    return true;
}

bool LiteralBinaryReplyStream::checkBlock(model_Protocoldata record, unsigned short len)
{
    return len == 0 && LiteralReplyStream::checkBlock(record, 0);
}
