// SPDX-License-Identifier: MIT
#pragma once

#include "model_protocoldata.h"

/// Which replies carry a block, and how long it is.
///
/// | CMD  | DAT1     | UDP             | stream links     | block                            |
/// |------|----------|-----------------|------------------|----------------------------------|
/// | 0x79 | 0x0C     | complete, now   | complete, now    | none                             |
/// | 0x79 | 0x09     | complete, now   | block follows    | announced                        |
/// | 0x79 | others   | block follows   | block follows    | announced                        |
/// | 0xF1 | 0x40     | now if length 0 | block follows    | announced                        |
/// | 0xF1 | others   | block follows   | block follows    | announced                        |
/// | 0x8E | 0x27     | block follows   | block follows    | announced                        |
/// | 0x8B | 0x05     | block follows   | block follows    | 145 bytes                        |
/// | 0x8B | 0x09     | block follows   | block follows    | 129 bytes                        |
/// | 0x77 | 0x23     | block follows   | block follows    | 129 bytes                        |
/// | 0x69 | 0x09     | block follows   | block follows    | 129 bytes, 33 where shortened    |
/// | any other       | complete        | complete         | none                             |
///
/// Announced means DAT4 * 256 + DAT3 bytes. On a stream the block's last byte is its checksum.
namespace replykinds
{

/// What follows a standard reply.
enum class Block {
    None,           ///< nothing; the reply is complete
    Immediate,      ///< nothing; the reply is complete and handed over before anything else is read
    Announced,      ///< as many bytes as the reply announces
    AnnouncedIfAny, ///< as Announced, and Immediate if the reply announces none
    FixedA,         ///< fixedLengthA bytes
    FixedB,         ///< fixedLengthB bytes
};

constexpr int fixedLengthA = 129;     ///< bytes of block A
constexpr int fixedLengthAShort = 33; ///< replaces fixedLengthA for mayBeShort kinds
constexpr int fixedLengthB = 145;     ///< bytes of block B

/// One reply kind.
struct Kind {
    Block onUdp;     ///< in a datagram of its own
    Block onStream;  ///< directly behind the reply
    bool mayBeShort; ///< stream: has the short block A on device type 0x290200 of the serial line
};

/// The kind of a decoded reply, by CMD and DAT1.
Kind kindOf(const model_Protocoldata& reply);

/// DAT4 * 256 + DAT3: 0 to 65535.
quint16 announcedLength(const model_Protocoldata& reply);

/// The length of a fixed block, 0 for the other kinds.
int fixedLength(Block block);

} // namespace replykinds
