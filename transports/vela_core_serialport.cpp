// SPDX-License-Identifier: MIT
#include "vela_core_serialport.h"

#include "binaryreplyformat.h"
#include "commandframe.h"
#include "debugline.h"

namespace
{

constexpr BinaryReplyFormat velaReplies;

} // namespace

Vela_Core_SerialPort::Vela_Core_SerialPort() : SerialLine(velaReplies)
{
    connect(&port(), &QSerialPort::readyRead, this, &Vela_Core_SerialPort::readPendingDatagrams);
}

QByteArray Vela_Core_SerialPort::produceCmds(model_Protocoldata record)
{
    return commandframe::encodeBinary(record);
}

void Vela_Core_SerialPort::showChunk(const QByteArray& chunk)
{
    qCDebug(debugLine) << port().portName() << QString::fromUtf8(chunk.constData(), chunk.size());
}
