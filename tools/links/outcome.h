// SPDX-License-Identifier: MIT
#pragma once

#include "devicelink.h"

/// What became of one command.
struct Outcome {
    bool sent = false;        ///< the system has taken it
    bool interrupted = false; ///< the person had enough before it was answered
    QString failure;          ///< why it is not answered, with the link's name; empty: it is
    std::vector<Reply> replies;
    qint64 tries = 0;
    double elapsedMs = 0; ///< from the first try to the last reply, or to the end of the wait

    bool ok() const { return failure.isEmpty(); }

    /// What a failure is called: the system has refused the command, or nothing came back.
    static QString notTaken(const QString& link);
    static QString silence(const QString& link, qint64 timeoutMs, qint64 tries);

    /// For a program: the link, the command, its frame and the replies, but not whether it is a
    /// success.
    QJsonObject json(const QString& link, const Command& command, FieldSet fields) const;
};
