// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>

#include <mutex>

/// Bytes received and not yet consumed, oldest first: a byte queue with a moving head. Append and
/// take are amortised O(1) in the size of the backlog. Consumed bytes stay before the head until
/// room is needed; a full buffer takes a quarter more memory than its bytes.
///
/// Any thread; each operation is atomic. Counts below 0 are 0.
class ReceiveBuffer
{
public:
    using Size = QByteArray::size_type;

    /// The unparsed bytes, 16 MiB, from which a link leaves what comes to the medium's own flow
    /// control. Append itself takes whatever it is given.
    static constexpr Size limit = 16 * 1024 * 1024;

    void append(const QByteArray& data);
    void append(const char* data, Size size);

    /// A copy of the first \a count bytes, or of all if there are fewer. Consumes nothing.
    QByteArray peek(Size count) const;

    /// Removes the first \a count bytes, or all if there are fewer, and returns them.
    QByteArray take(Size count);

    /// As take, without the copy.
    void discard(Size count);

    Size size() const;
    bool isFull() const { return size() >= limit; }
    void clear(); ///< empties it and gives its memory back

private:
    Size sizeLocked() const { return bytes.size() - head; }
    void discardLocked(Size count);
    void makeRoom(Size size);

    mutable std::mutex buffLock; // a leaf
    QByteArray bytes;            // what is before head is consumed
    Size head = 0;
};
