// SPDX-License-Identifier: MIT
#pragma once

#include <QJsonObject>
#include <QString>

#include <stdexcept>
#include <utility>

/// How the tool ends.
namespace exitcode
{

constexpr int success = 0;
constexpr int failed = 1;   ///< the operation failed: no reply, an invalid frame, a lost link
constexpr int badInput = 2; ///< an address, number, file or option is wrong; nothing was sent
constexpr int linkDown = 3; ///< the link could not be opened; nothing was sent

} // namespace exitcode

/// Ends the tool with one line on standard error, what() in UTF-8, and an exit code.
class ToolError : public std::runtime_error
{
public:
    /// \a known is what a program is to be told besides.
    ToolError(int code, const QString& text, QJsonObject known = {})
        : std::runtime_error(text.toUtf8().toStdString()), exitCode(code), details(std::move(known))
    {
    }

    int code() const { return exitCode; }
    const QJsonObject& json() const { return details; }

private:
    int exitCode;
    QJsonObject details;
};

/// What the person typed is wrong: the text says what, and what was expected.
class BadInput : public ToolError
{
public:
    explicit BadInput(const QString& text) : ToolError(exitcode::badInput, text) {}

    /// WHERE: invalid value "VALUE" (expected EXPECTED)
    BadInput(const QString& where, const QString& value, const QString& expected)
        : BadInput(QString("%1: invalid value \"%2\" (expected %3)").arg(where, value, expected))
    {
    }
};

/// The link could not be opened: the text says which, why, and what would help.
class LinkDown : public ToolError
{
public:
    explicit LinkDown(const QString& text) : ToolError(exitcode::linkDown, text) {}
};
