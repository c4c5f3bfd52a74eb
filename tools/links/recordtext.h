// SPDX-License-Identifier: MIT
#pragma once

#include "commandreader.h"
#include "devicelink.h"

#include <QDateTime>

/// Records as people and programs read them. Pure functions.
namespace recordtext
{

/// What is sent: the command's raw bytes, or its record's frame with checksum and (binary) block
/// length computed.
QByteArray frame(const Command& command, FieldSet fields);

/// The command whose frame was sent: with the fields that the frame computes.
Command framed(const Command& command, FieldSet fields);

/// The fields in frame order, in hexadecimal: "HEAD 01 ADDR 02 CMD 8b ...".
QString line(const Command& command, FieldSet fields);

/// The same for a program: numbers by lower-case names, "block_length", and "block" in hexadecimal
/// if there is one ("data_length" and "data" with OsdFrame).
QJsonObject json(const Command& command, FieldSet fields);

/// The block that a command comes with, or its data.
const QByteArray& block(const Command& command, FieldSet fields);

/// A command as a device has read it.
Command command(const DeviceCommand& read, FieldSet fields);

/// The command whose frame these bytes, at least the shortest frame, are.
Command osdCommand(const QByteArray& frame);

/// A received record, its origin included.
Reply reply(const model_Protocoldata& record, FieldSet fields);

/// A received acknowledgement, its origin included.
Reply reply(const model_OsdParam& acknowledgement);

/// The line, and the first few bytes of the block if there is one: "block 145 bytes: 00 01 ...".
QString summary(const Command& command, FieldSet fields);

/// All bytes, sixteen a line, with offset and text.
QString dump(const QByteArray& bytes);

/// A frame for a person: its text if it is printable, else hexadecimal; long ones are cut.
QString frameText(const QByteArray& frame);

/// A byte as two hexadecimal digits.
QString hex(int byte);

/// The local time of day with milliseconds.
QString timeOfDay(const QDateTime& time = QDateTime::currentDateTime());

/// The local date and time with milliseconds and the zone's offset, in the form of ISO 8601.
QString zonedTime(const QDateTime& time = QDateTime::currentDateTime());

} // namespace recordtext
