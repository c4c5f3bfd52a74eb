// SPDX-License-Identifier: MIT
#include "receivebuffer.h"

#include <cstring>

namespace
{

constexpr ReceiveBuffer::Size keptCapacity = 16 * 1024; // an emptied buffer keeps no more than this
constexpr int spareShare = 8; // of the bytes, for consumed ones and for growth alike

} // namespace

void ReceiveBuffer::append(const QByteArray& data)
{
    append(data.constData(), data.size());
}

void ReceiveBuffer::append(const char* data, Size size)
{
    const std::lock_guard locker(buffLock);
    makeRoom(size);
    bytes.append(data, size);
}

void ReceiveBuffer::makeRoom(Size size)
{
    if (bytes.size() + size <= bytes.capacity()) {
        return;
    }
    if (head >= sizeLocked() / spareShare) { // each consumed byte moves eight others at most
        const Size left = sizeLocked();
        // QByteArray::remove of Qt 6 would keep the room before what is left.
        std::memmove(bytes.data(), bytes.constData() + head, static_cast<std::size_t>(left));
        bytes.resize(left);
        head = 0;
    }
    const Size needed = bytes.size() + size;
    if (needed > qMax(bytes.capacity(), keptCapacity)) {
        bytes.reserve(needed + needed / spareShare); // append would double it
    }
}

QByteArray ReceiveBuffer::peek(Size count) const
{
    const std::lock_guard locker(buffLock);
    return QByteArray(bytes.constData() + head, qBound(Size{0}, count, sizeLocked()));
}

QByteArray ReceiveBuffer::take(Size count)
{
    const std::lock_guard locker(buffLock);
    QByteArray taken(bytes.constData() + head, qBound(Size{0}, count, sizeLocked()));
    discardLocked(taken.size());
    return taken;
}

void ReceiveBuffer::discard(Size count)
{
    const std::lock_guard locker(buffLock);
    discardLocked(qBound(Size{0}, count, sizeLocked()));
}

ReceiveBuffer::Size ReceiveBuffer::size() const
{
    const std::lock_guard locker(buffLock);
    return sizeLocked();
}

void ReceiveBuffer::clear()
{
    const std::lock_guard locker(buffLock);
    bytes = QByteArray();
    head = 0;
}

void ReceiveBuffer::discardLocked(Size count)
{
    head += count;
    if (head == bytes.size()) {
        head = 0;
        if (bytes.capacity() > keptCapacity) {
            bytes = QByteArray();
        } else {
            bytes.resize(0);
        }
    }
}
