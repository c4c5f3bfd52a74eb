// SPDX-License-Identifier: MIT
#pragma once

#include "model_protocoldata.h"

#include <QByteArray>

/// The frames written down step by step, one character at a time, as one would write them by hand
/// the first time: the baseline that the library is measured against and the reference that its
/// codec must agree with on every input.
namespace literalframe
{

QByteArray changeData(const QByteArray& bytes);
QByteArray produceCmds(model_Protocoldata record);

/// The UDP decoder, without its messages.
model_Protocoldata getArrayData(QByteArray datagram);

/// The stream decoder: false leaves the record untouched.
bool getArrayData(QByteArray frame, model_Protocoldata* record);

QByteArray produceBinary(model_Protocoldata record);
bool decodeBinary(QByteArray head, model_Protocoldata* record);

} // namespace literalframe
