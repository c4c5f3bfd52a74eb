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

    /// Copies the first \a count bytes, or all if there are fewer, and returns how many.
    int peek(char* out, int count) const;

    /// Removes the first \a count bytes, or all if there are fewer, and returns them.
    QByteArray take(int count);

    /// As take, without the copy.
    void discard(int count);

    /// Drops what \a find leaves out at the head. With \a minimum bytes or more, find is given the
    /// first \a window of them, or all if there are fewer: what is before the index that it returns
    /// is dropped, everything that it was given if that is negative. True if find found something.
    bool seek(int minimum, int window, int (*find)(const char* data, int size));

    int size() const;
    void clear(); ///< empties it and gives its memory back

private:
    int sizeLocked() const { return bytes.size() - head; }
    void discardLocked(int count);

    mutable QMutex lock;
    QByteArray bytes; // what is before head is consumed
    int head = 0;
};
