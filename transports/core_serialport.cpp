// SPDX-License-Identifier: MIT
#include "core_serialport.h"

#include "commandframe.h"
#include "textreplystream.h"

namespace
{

constexpr const char* blockFailure = "CheckBlock default:";

constexpr TextReplyValues replyValues{std::chrono::milliseconds(3),
                                      nullptr,
                                      true,
                                      1,
                                      1,
                                      true,
                                      "Core_SerialPort::getArrayData   dataStr==",
                                      blockFailure,
                                      blockFailure,
                                      blockFailure};

} // namespace

Core_SerialPort::Core_SerialPort() : SerialLine(std::make_shared<TextReplyStream>(replyValues))
{
    connect(&port(), &QSerialPort::readyRead, this, &Core_SerialPort::readPendingDatagrams);
}

Core_SerialPort::~Core_SerialPort() = default;

QByteArray Core_SerialPort::produceCmds(model_Protocoldata record)
{
    return commandframe::encodeText(record);
}

QByteArray Core_SerialPort::changeData(QByteArray bytes)
{
    return commandframe::toText(bytes);
}

void Core_SerialPort::readPendingDatagrams()
{
    receive();
}

void Core_SerialPort::sendDatatoDevice(void* parameters)
{
    sendRecord(parameters);
}

void Core_SerialPort::sendDatatoDeviceByFeatures(void* parameters)
{
    sendDatatoDevice(parameters);
}

void Core_SerialPort::sendDatatoDeviceForSysPlan(void* /*parameters*/) {}

void Core_SerialPort::handleError(QSerialPort::SerialPortError error)
{
    closeLost(error);
}
