// SPDX-License-Identifier: MIT
#include "vela_core_serialport.h"

#include "binaryreplystream.h"
#include "commandframe.h"
#include "debugline.h"

Vela_Core_SerialPort::Vela_Core_SerialPort() : SerialLine(std::make_shared<BinaryReplyStream>())
{
    connect(&port(), &QSerialPort::readyRead, this, &Vela_Core_SerialPort::readPendingDatagrams);
}

Vela_Core_SerialPort::~Vela_Core_SerialPort() = default;

QByteArray Vela_Core_SerialPort::produceCmds(model_Protocoldata record)
{
    return commandframe::encodeBinary(record);
}

void Vela_Core_SerialPort::readPendingDatagrams()
{
    receive();
}

void Vela_Core_SerialPort::sendDatatoDevice(void* parameters)
{
    sendRecord(parameters);
}

void Vela_Core_SerialPort::sendDatatoDeviceByFeatures(void* parameters)
{
    sendDatatoDevice(parameters);
}

void Vela_Core_SerialPort::sendDatatoDeviceForSysPlan(void* /*parameters*/) {}

void Vela_Core_SerialPort::handleError(QSerialPort::SerialPortError error)
{
    closeLost(error);
}

void Vela_Core_SerialPort::showChunk(const QByteArray& chunk)
{
    qCDebug(debugLine) << port().portName() << QString::fromUtf8(chunk.constData(), chunk.size());
}
