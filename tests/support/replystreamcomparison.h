// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QString>
#include <QVector>

/// Runs one stream of bytes through the library's parser and through the literal one.
namespace replystreamcomparison
{

/// Which link's replies.
enum class Line { Serial, ShortBlockSerial, Usb, SecondSerial };
constexpr int lineCount = 4;

/// Feeds both parsers the same chunks, one before each pass and one in each pause of a wait for a
/// block, then runs passes until nothing moves any more. Returns how they differ in what they
/// queued, what they left in the buffer, how often they waited or what they wrote to the debug log;
/// empty if they agree.
QString difference(Line line, const QVector<QByteArray>& chunks);

/// As difference, with line and chunks taken from any bytes: the first one chooses the line, then
/// each chunk follows its length in one byte.
QString difference(const QByteArray& script);

/// The script that feeds these chunks (of 255 bytes at most) to that line.
QByteArray script(Line line, const QVector<QByteArray>& chunks);

} // namespace replystreamcomparison
