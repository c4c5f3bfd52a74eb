// SPDX-License-Identifier: MIT
#include "core_serialport.h"

#include "commandframe.h"
#include "textreplyformat.h"

namespace
{

constexpr TextReplyValues serialValues()
{
    TextReplyValues values;
    values.decodeFailure = "Core_SerialPort::getArrayData   dataStr==";
    return values;
}

constexpr TextReplyFormat serialReplies(serialValues());

} // namespace

Core_SerialPort::Core_SerialPort() : SerialLine(serialReplies)
{
    connect(&port(), &QSerialPort::readyRead, this, &Core_SerialPort::readPendingDatagrams);
}

QByteArray Core_SerialPort::produceCmds(model_Protocoldata record)
{
    return commandframe::encodeText(record);
}

QByteArray Core_SerialPort::changeData(QByteArray bytes)
{
    return commandframe::toText(bytes);
}
