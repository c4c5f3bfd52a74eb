// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QMutex>

/// Bytes received and not yet consumed, oldest first: a byte queue with a moving head, so that
/// taking a few bytes off a long backlog costs what it costs off a short one.
///
/// Any thread; each operation is atomic and its lock a leaf.
class ReceiveBuffer
{
public:
    void append(const QByteArray& data);
    void append(const char* data, int size);

    /// A copy of the first \a count bytes, or of all if there are fewer. Consumes nothing.
    QByteArray peek(int count) const;

    /// Removes the first \a count bytes, or all if there are fewer, and returns them.
    QByteArray take(int count);

    /// As take, without the copy.
    void discard(int count);

    int size() const;
    void clear(); ///< empties it and gives its memory back

private:
    int sizeLocked() const { return bytes.size() - head; }
    void discardLocked(int count);

    mutable QMutex lock;
    QByteArray bytes; // what is before head is consumed
    int head = 0;
};
