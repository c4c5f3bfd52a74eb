// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QString>
#include <QVector>

#include <chrono>
#include <vector>

/// Runs one stream of bytes through the library's parser and through the literal one.
namespace replystreamcomparison
{

/// Which link's replies.
enum class Line { Serial, ShortBlockSerial, Usb, SecondSerial };
constexpr int lineCount = 4;

/// Bytes, and when they come, counted from the start of both parsers.
struct Arrival {
    std::chrono::milliseconds at;
    QByteArray bytes;
};

/// Runs both parsers' loops in a time that only their pauses let pass, until everything has come,
/// in the order given, and nothing moves any more. Returns how they differ in what they queued, in
/// the flag, in what they left in the buffer, how often and how long they paused or what they wrote
/// to the debug log; empty if they agree.
QString difference(Line line, const std::vector<Arrival>& arrivals);

/// As difference, with a chunk every 4 ms.
QString difference(Line line, const QVector<QByteArray>& chunks);

/// As difference, with line and chunks taken from any bytes: the first one chooses the line, then
/// each chunk follows its length in one byte.
QString difference(const QByteArray& script);

/// The script that feeds these chunks (of 255 bytes at most) to that line.
QByteArray script(Line line, const QVector<QByteArray>& chunks);

} // namespace replystreamcomparison
