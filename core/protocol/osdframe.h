// SPDX-License-Identifier: MIT
#pragma once

#include "model_osdparam.h"

#include <QByteArray>

/// The bytes between this library and an on-screen-display endpoint. Pure functions, any thread.
///
/// Command, host to endpoint, n = size of arryData (may be 0):
///
/// | offset | size | content  |
/// |--------|------|----------|
/// | 0      | 1    | ch2      |
/// | 1      | 1    | ch3      |
/// | 2      | 1    | ch5      |
/// | 3      | 1    | ch4      |
/// | 4      | 1    | ch7      |
/// | 5      | 1    | ch8      |
/// | 6      | n    | arryData |
/// | 6+n    | 1    | ch9      |
/// | 7+n    | 1    | ch10     |
///
/// There is no length, no checksum and no escaping. ch0, ch1 and ch6 are not sent.
///
/// Acknowledgement, endpoint to host; bytes before the mark belong to nothing:
///
/// | offset | size | content |
/// |--------|------|---------|
/// | 0      | 2    | "OK"    |
/// | 2      | 1    | any     |
namespace osdframe
{

constexpr int headLength = 6;                ///< of a command, before arryData
constexpr int tailLength = 2;                ///< behind it
constexpr char acknowledgementMark[] = "OK"; ///< an acknowledgement begins with it
constexpr int acknowledgementLength = 3;     ///< the mark and one byte

/// The command frame of a record.
QByteArray encode(const model_OsdParam& record);

/// The record of an acknowledgement: a default one with the endpoint's address text, the three
/// bytes in arryData, and ch4 = 0xFF.
model_OsdParam acknowledgement(const QString& ip, const QByteArray& bytes);

} // namespace osdframe
