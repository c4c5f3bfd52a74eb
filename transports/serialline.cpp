// SPDX-License-Identifier: MIT
#include "serialline.h"

#include "biz_cmdswork.h"
#include "callerrecord.h"
#include "commandframe.h"
#include "debugline.h"
#include "replyqueue.h"
#include "replystream.h"
#include "utility_manage.h"

#include <poll.h>

namespace
{

// Longer than any wait for a block: a parser that takes more waits for the host, which may be
// waiting for the close.
constexpr std::chrono::milliseconds stopPatience{1000};

bool hasHungUp(int descriptor)
{
    pollfd line{descriptor, 0, 0};
    return poll(&line, 1, 0) > 0 && (line.revents & POLLHUP) != 0;
}

} // namespace

SerialLine::SerialLine(std::shared_ptr<ReplyStream> stream)
    : ReplyStreamParser(std::move(stream)), serialPort(std::make_unique<QSerialPort>()),
      cmdsWork(std::make_shared<biz_CMDSWork>())
{
}

SerialLine::~SerialLine()
{
    serialPort->disconnect(this);
    shut(stopPatience);
}

// A closed port is not closed again: that would make it report an error.
void SerialLine::shut(std::chrono::milliseconds patience)
{
    if (serialPort->isOpen() || isParsing()) {
        stopParsing(patience);
    }
    if (serialPort->isOpen()) {
        serialPort->close();
    }
    stream()->received().clear();
}

void SerialLine::setDeviceIP(QString /*ip*/) {}

void SerialLine::setPort(int /*port*/) {}

void SerialLine::clearQueue()
{
    replyqueue::clearElsewhere(cmdsWork);
}

bool SerialLine::openSerialPort(QString portName, QSerialPort::BaudRate baudRate,
                                QSerialPort::StopBits stopBits, QSerialPort::Parity parity,
                                QSerialPort::FlowControl flowControl,
                                QSerialPort::DataBits dataBits)
{
    if (serialPort->isOpen() || isParsing()) {
        // A host that has cleared the flag does not want to wait for the parser.
        shut(bBaseFlag ? stopPatience : std::chrono::milliseconds::zero());
    }
    serialPort->setPortName(portName);
    setOriginName(serialPort->portName());
    serialPort->setBaudRate(baudRate, QSerialPort::AllDirections);
    serialPort->setDataBits(dataBits);
    serialPort->setParity(parity);
    serialPort->setStopBits(stopBits);
    serialPort->setFlowControl(flowControl);
    if (!serialPort->open(QIODevice::ReadWrite)) {
        return false;
    }
    if (!startParsing()) {
        serialPort->close();
        return false;
    }
    return true;
}

void SerialLine::closeSerialPort()
{
    if (serialPort->isOpen()) {
        shut(stopPatience);
    }
}

bool SerialLine::openUSB(unsigned short /*vendorId*/, unsigned short /*productId*/)
{
    return false;
}

void SerialLine::closeUSB() {}

void SerialLine::setDeviceType(model_GlobalEnum::DeviceType type)
{
    setOriginType(type);
}

void SerialLine::sendRecord(void* parameters)
{
    if (const auto record = callerRecord<model_Protocoldata>(parameters)) {
        const QByteArray frame = produceCmds(*record);
        sendComData(frame);
        qCDebug(debugLine) << textWithBytes("Send data:", frame.left(commandframe::textLength));
    }
}

void SerialLine::sendComData(QByteArray data)
{
    if (serialPort->isOpen()) {
        reportWritten(serialPort->write(data), data);
    }
}

void SerialLine::reportWritten(qint64 written, const QByteArray& frame)
{
    if (written == frame.size()) {
        qCDebug(debugLine) << "Send successful";
        Utility_Manage::writeLog(textWithBytes("Send successful:", frame));
    } else if (written == -1) {
        qCDebug(debugLine) << "Send failed";
    }
}

void SerialLine::closeLost(QSerialPort::SerialPortError error)
{
    if (!serialPort->isOpen()) {
        return;
    }
    // Reading a line that has hung up gives an end of file, which the port reports as this or that
    // error, by what an earlier system call has left in errno.
    const bool isLost = error == QSerialPort::ResourceError ||
                        (error == QSerialPort::ReadError && hasHungUp(serialPort->handle()));
    if (isLost) {
        serialPort->close(); // the parser runs on: the next open stops it
    }
}

void SerialLine::receive(void (*seen)(const QString& portName, const QByteArray& chunk))
{
    while (serialPort->bytesAvailable() > 0) {
        const QByteArray chunk = serialPort->readAll();
        if (!bBaseFlag) {
            continue;
        }
        if (seen != nullptr) {
            seen(serialPort->portName(), chunk);
        }
        appendBuffData(chunk);
    }
}
