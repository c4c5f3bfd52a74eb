// SPDX-License-Identifier: MIT
#pragma once

#include "model_protocoldata.h"

#include <QByteArray>

/// Joins a UDP standard reply with the block that came in another datagram. Pure: no state, no I/O.
namespace blockjoin
{

enum class Outcome {
    Joined,         ///< the record carries its block
    ZeroLength,     ///< the reply announces no block
    LengthMismatch, ///< the reply announces another length
};

struct Result {
    Outcome outcome = Outcome::ZeroLength;
    bool announced = false;    ///< the length was taken from the reply, not fixed by its kind
    qint16 length = 0;         ///< the announced length, if announced: negative from 0x8000 on
    model_Protocoldata record; ///< \a reply with the block taken so far
};

/// Attaches the first bytes of \a received to \a reply: at most as many as its kind fixes, else
/// exactly as many as the reply announces.
Result join(model_Protocoldata reply, const QByteArray& received);

/// What a failed join says in the debug log and the log. Null for Joined.
const char* failureText(Outcome outcome);

} // namespace blockjoin
