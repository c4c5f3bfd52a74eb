// SPDX-License-Identifier: MIT
#pragma once

#include <QStringList>

/// Collects messages from every thread while it exists. One at a time.
class MessageCapture
{
public:
    enum class Kind {
        DebugLines, ///< of Qt's "default" logging category, which it switches on
        Everything, ///< that Qt or the library emits
    };

    explicit MessageCapture(Kind kind = Kind::DebugLines);
    ~MessageCapture();
    MessageCapture(const MessageCapture&) = delete;
    MessageCapture& operator=(const MessageCapture&) = delete;

    QStringList lines() const;
    qsizetype count(const QString& line) const; ///< lines that are exactly this
    void clear();
};
