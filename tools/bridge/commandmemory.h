// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QElapsedTimer>
#include <QSet>

#include <chrono>
#include <deque>

/// Which commands have come lately. At QoS 1 a command that was published once may come twice: its
/// correlation data say that it is the same.
class CommandMemory
{
public:
    explicit CommandMemory(std::chrono::seconds howLong) : limit(howLong) { clock.start(); }

    /// Whether a command with these words has come before; it is remembered from now on.
    bool hasCome(const QByteArray& topic, const QByteArray& responseTopic,
                 const QByteArray& correlation, const QByteArray& payload);

private:
    struct Entry {
        qint64 time;
        QByteArray key;
    };

    const std::chrono::milliseconds limit;
    QElapsedTimer clock;
    QSet<QByteArray> keys;
    std::deque<Entry> entries; // oldest first
};
