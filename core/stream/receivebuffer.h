// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>

#include <mutex>

/// Bytes received and not yet consumed, oldest first: a byte queue with a moving head, so that
/// taking a few bytes off a long backlog costs what it costs off a short one.
///
/// Any thread; each operation is atomic and its lock a leaf.
///
/// Consumed bytes lie before the head until room is needed. What is left then moves to the front if
/// an eighth of it or more was consumed, so each consumed byte moves eight others at most; and the
/// memory grows by an eighth, so a full buffer takes a quarter more than its bytes.
class ReceiveBuffer
{
public:
    /// How many unparsed bytes a link lets wait here: from then on it leaves what comes to the
    /// medium's own flow control. Append itself takes whatever it is given.
    static constexpr int limit = 16 * 1024 * 1024;

    void append(const QByteArray& data);
    void append(const char* data, int size);

    /// A copy of the first \a count bytes, or of all if there are fewer. Consumes nothing.
    QByteArray peek(int count) const;

    /// Copies the first \a count bytes, or all if there are fewer, and returns how many.
    int peek(char* out, int count) const;

    /// Drops the first \a before bytes, then takes \a count bytes; false, and none of them taken,
    /// if there are fewer.
    bool takeWhole(int count, QByteArray& out, int before = 0);

    /// Removes the first \a count bytes, or all if there are fewer, and returns them.
    QByteArray take(int count);

    /// As take, without the copy.
    void discard(int count);

    /// What a search of the buffered bytes has found.
    struct Found {
        int garbage; ///< bytes at the head that are to be dropped
        bool isHead; ///< whether behind them begins what was looked for, whole
    };

    /// Lets \a find search all buffered bytes where they lie, and drops the garbage that it
    /// reports. Returns what it has found; of a head, the first \a size bytes are copied to \a out.
    bool seek(Found (*find)(const char* data, int size), char* out, int size);

    int size() const;
    bool isFull() const { return size() >= limit; }
    void clear(); ///< empties it and gives its memory back

private:
    int sizeLocked() const { return bytes.size() - head; }
    void discardLocked(int count);
    void makeRoom(int size);

    mutable std::mutex buffLock;
    QByteArray bytes; // what is before head is consumed
    int head = 0;
};
