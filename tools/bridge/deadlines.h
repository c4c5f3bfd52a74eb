// SPDX-License-Identifier: MIT
#pragma once

#include <QElapsedTimer>
#include <QObject>
#include <QTimer>

#include <set>
#include <vector>

/// One deadline for each of many things, behind one timer. Owner's thread.
class Deadlines : public QObject
{
    Q_OBJECT

public:
    explicit Deadlines(std::size_t count);

    void set(std::size_t thing, qint64 ms); ///< never earlier; instead of the one before
    void clear(std::size_t thing);

Q_SIGNALS:
    void expired(std::size_t thing); ///< it has no deadline any more

private:
    void look();

    std::set<std::pair<qint64, std::size_t>> all; // by time
    std::vector<qint64> times;                    // of each thing; -1: none
    QElapsedTimer clock;
    QTimer timer;
};
