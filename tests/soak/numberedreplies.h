// SPDX-License-Identifier: MIT
#pragma once

#include "model_protocoldata.h"

#include <QByteArray>

/// Replies that carry a number, from which all of a reply follows: its kind, its bytes, its record.
/// Written with the simulated devices' codec, not the library's. Pure functions, any thread.
namespace numberedreplies
{

enum class Link { Udp, Serial, Vela, Usb };
constexpr int links = 4;

struct Reply {
    QByteArray head;
    QByteArray block;          ///< as on the wire; on a stream with its checksum; may be empty
    model_Protocoldata record; ///< as the host has to get it, but for the origin
    bool isImmediate = false;  ///< of the kind that nothing is to overtake
};

/// The number behind \a number. Some are left out: no part of a damaged reply looks like another
/// one.
quint32 next(quint32 number);

Reply make(Link link, quint32 number);

/// The number of a record that the host got; some number if it is not one of these replies.
quint32 numberOf(Link link, const model_Protocoldata& record);

/// What a device sends beside its replies: no part of it begins or ends one. Noise for every link.
QByteArray noise(int length, quint32 number);

/// A command with a number.
model_Protocoldata command(quint32 number);

} // namespace numberedreplies
