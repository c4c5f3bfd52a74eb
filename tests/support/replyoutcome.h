// SPDX-License-Identifier: MIT
#pragma once

#include "recordequality.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <deque>

/// What the library, or its literal version, has made of some bytes.
struct ReplyOutcome {
    std::deque<model_Protocoldata> records;
    QByteArray flags;     ///< '1' where the host's flag was up
    QByteArray remaining; ///< bytes that are still in the buffer
    int pauses = 0;
    qint64 elapsedMs = 0;
    QStringList lines; ///< of the debug log
    QStringList log;   ///< of the host's

    /// How this differs from what was expected; empty if they agree.
    QString difference(const ReplyOutcome& expected) const
    {
        const auto differs = [](const char* what, const auto& is, const auto& wanted) {
            return QStringLiteral("%1: \"%2\", expected \"%3\"")
                .arg(QLatin1String(what), QString(is), QString(wanted));
        };
        if (records.size() != expected.records.size()) {
            return QStringLiteral("%1 records, %2 expected")
                .arg(records.size())
                .arg(expected.records.size());
        }
        for (std::size_t i = 0; i < records.size(); ++i) {
            if (!sameRecord(records[i], expected.records[i])) {
                return QStringLiteral("record %1 differs").arg(i);
            }
        }
        if (flags != expected.flags) {
            return differs("flags", flags, expected.flags);
        }
        if (remaining != expected.remaining) {
            return differs("left", remaining.toHex(), expected.remaining.toHex());
        }
        if (pauses != expected.pauses || elapsedMs != expected.elapsedMs) {
            return QStringLiteral("%1 pauses in %2 ms, %3 in %4 ms expected")
                .arg(pauses)
                .arg(elapsedMs)
                .arg(expected.pauses)
                .arg(expected.elapsedMs);
        }
        if (lines != expected.lines) {
            return differs("debug lines", lines.join('\n'), expected.lines.join('\n'));
        }
        return log == expected.log ? QString()
                                   : differs("log", log.join('\n'), expected.log.join('\n'));
    }
};
