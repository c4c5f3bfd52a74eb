// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QString>

/// The tool's output. Every line is written at once and whole. Any thread.
namespace output
{

/// What a line means; shown as its colour where it goes to a terminal, unless NO_COLOR is set.
enum class Tone { Plain, Faint, Good, Notable, Bad };

void line(const QString& text, Tone tone = Tone::Plain);  ///< to standard output
void error(const QString& text, Tone tone = Tone::Plain); ///< one line to standard error
void json(const QJsonObject& object);                     ///< as one line, to standard output
void raw(const QByteArray& bytes);                        ///< to standard output, as they are
bool lost();      ///< whether some of standard output could not be written
void checkLoss(); ///< throws ToolError if so

/// The object that ends an operation, with how it ended: "ok", "code" and, if it failed, "error".
QJsonObject ended(QJsonObject object, int code = 0, const QString& wrong = {});

/// The same to standard output.
void result(QJsonObject object, int code = 0, const QString& wrong = {});

/// From when this descriptor is readable, output that nobody takes within half a second is lost;
/// -1: there is none, and a reader that does not read is waited for.
void stopAt(int descriptor);

/// Shows how long work is going on, on one line of standard error that is written over; nothing
/// where that is no terminal. The next line of any kind clears it.
void progress(const QString& text);
void endProgress();

} // namespace output
