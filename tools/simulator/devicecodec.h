// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>

#include <optional>

/// The frames as the device sees them: decodes command heads, encodes replies. Shares no code with
/// the library, so that each tests the other. Pure: no state, no I/O.
///
/// | text, 19 bytes                   | binary, 16 bytes, high byte first                        |
/// |----------------------------------|----------------------------------------------------------|
/// | `<` `T` (command) or `F` (reply) | 2 lead (command: any; reply: F1 1F), ADDR, aux3, 2 aux4, |
/// | 16 digits: 7 body bytes, their   | 2 aux5, 2 block length, CMD DAT1 DAT2 DAT3 DAT4,         |
/// | sum modulo 256; `>`              | the sum of these 15 modulo 256                           |
///
/// On-screen displays need no codec: 8 bytes or more are a command, "OK" and its first byte the
/// reply.
namespace devicecodec
{

enum class Framing { Text, Binary, Osd };

constexpr int textHeadSize = 19;
constexpr int binaryHeadSize = 16;
constexpr int osdFrameSize = 8; ///< without data

/// The fields of a head.
struct Head {
    quint8 head = 0; ///< text only
    quint8 addr = 0;
    quint8 cmd = 0;
    quint8 dat1 = 0;
    quint8 dat2 = 0;
    quint8 dat3 = 0;
    quint8 dat4 = 0;
    quint16 lead = 0;        ///< binary only: the first two bytes
    quint8 aux3 = 0;         ///< binary only
    quint16 aux4 = 0;        ///< binary only
    quint16 aux5 = 0;        ///< binary only
    quint8 sum = 0;          ///< the checksum of a command that was read
    quint16 blockLength = 0; ///< binary: its own field; text: DAT4 * 256 + DAT3
};

int headSize(Framing framing);

/// The valid command head at the start of \a bytes; text digits may be of either case.
std::optional<Head> decodeCommand(const QByteArray& bytes, Framing framing);

/// The reply that echoes a command and announces a block of this length, if there is to be one.
Head replyTo(const Head& command, std::optional<int> blockLength, Framing framing);

/// The reply head. In binary framing the lead is F1 1F whatever \a reply holds.
QByteArray encodeReply(const Head& reply, Framing framing);

/// The sum of the bytes, modulo 256.
quint8 checksum(const QByteArray& bytes);

} // namespace devicecodec
