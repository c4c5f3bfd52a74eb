// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QJsonObject>

/// The subcommand decode with --json, run in this process as often as a test likes.
class ToolDecode
{
public:
    enum class Format { Text, Binary, Osd };

    ToolDecode();
    ~ToolDecode();
    ToolDecode(const ToolDecode&) = delete;
    ToolDecode& operator=(const ToolDecode&) = delete;

    /// What it prints of a frame; empty if that is none.
    QJsonObject operator()(const QByteArray& frame, Format format);

private:
    int standardOutput; // the test's own
    int file;           // what takes its place
};
