// SPDX-License-Identifier: MIT
#pragma once

#include "model_protocoldata.h"

#include <QByteArray>
#include <QString>

/// The device's frames, both directions. Pure functions: no state, no I/O, any thread.
///
/// Text frame, host to device; the reply has 'F' for 'T' and no block of its own:
///
/// | offset | size | content                                                                 |
/// |--------|------|-------------------------------------------------------------------------|
/// | 0      | 1    | '<'                                                                     |
/// | 1      | 1    | 'T' (command) or 'F' (reply)                                            |
/// | 2      | 16   | HEAD ADDR CMD DAT1 DAT2 DAT3 DAT4 CHKSUM, two hexadecimal digits each   |
/// | 18     | 1    | '>'                                                                     |
/// | 19     | n    | the block, raw                                                          |
///
/// Binary frame, both directions, high byte first:
///
/// | offset | size | content                                                                 |
/// |--------|------|-------------------------------------------------------------------------|
/// | 0      | 2    | aux1 when encoding, decoded into aux2                                   |
/// | 2      | 1    | ADDR                                                                    |
/// | 3      | 1    | aux3                                                                    |
/// | 4      | 2    | aux4                                                                    |
/// | 6      | 2    | aux5                                                                    |
/// | 8      | 2    | block length modulo 65536, decoded into aux6                            |
/// | 10     | 5    | CMD DAT1 DAT2 DAT3 DAT4                                                 |
/// | 15     | 1    | CHKSUM                                                                  |
/// | 16     | n    | the block, raw, if the length at offset 8 is not 0                      |
///
/// CHKSUM is the sum of the bytes before it in the body or head, modulo 256; the block is not
/// covered.
namespace commandframe
{

constexpr int textLength = 19;               ///< a text frame without block
constexpr int binaryLength = 16;             ///< a binary frame without block
constexpr int bodyLength = 8;                ///< HEAD to CHKSUM, in bytes
constexpr int digitsOffset = 2;              ///< where the body's digits begin
constexpr int digitsLength = 2 * bodyLength; ///< of the body
constexpr char startMark = '<';              ///< a text frame's first byte
constexpr char commandMark = 'T';            ///< behind the start mark of a command
constexpr char replyMark = 'F';              ///< behind the start mark of a reply
constexpr char endMark = '>';                ///< behind the digits

/// The text frame of a record, its checksum computed.
QByteArray encodeText(const model_Protocoldata& record);

/// '<', 'T', two lower-case hexadecimal digits for each byte, '>'.
QByteArray toText(const QByteArray& bytes);

/// The binary frame of a record, its checksum and block length computed.
QByteArray encodeBinary(const model_Protocoldata& record);

/// Decodes the digits of a text reply into the body of \a record and clears its block. Length and
/// marks are not checked. The digits are 8-bit local text up to the first zero byte; each pair is
/// parsed as QString::toInt(base 16) does it, and counts as 0 if it does not parse. False if the
/// last pair is not the checksum of the seven before it; the body is set all the same.
bool decodeText(const QByteArray& frame, model_Protocoldata& record);

/// The digits of a text reply as text, for messages.
QString digitsOf(const QByteArray& frame);

/// Decodes the head of a binary reply into \a record and clears its block; bytes beyond the end
/// count as 0. False if the checksum is wrong; the fields are set all the same.
bool decodeBinary(const QByteArray& head, model_Protocoldata& record);

} // namespace commandframe
