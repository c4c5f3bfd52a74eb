// SPDX-License-Identifier: MIT
#pragma once

#include <QStringList>

/// Collects the lines of Qt's "default" logging category, from every thread, while it exists, and
/// switches the category's debug lines on. One at a time.
class MessageCapture
{
public:
    MessageCapture();
    ~MessageCapture();
    MessageCapture(const MessageCapture&) = delete;
    MessageCapture& operator=(const MessageCapture&) = delete;

    QStringList lines() const;
    int count(const QString& line) const; ///< lines that are exactly this
    void clear();
};
