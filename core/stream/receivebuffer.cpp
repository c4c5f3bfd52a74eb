// SPDX-License-Identifier: MIT
#include "receivebuffer.h"

namespace
{

constexpr int keptCapacity = 16 * 1024; // an emptied buffer keeps no more than this
constexpr int spareShare = 8;           // of the bytes, for consumed ones and for growth alike

} // namespace

void ReceiveBuffer::append(const QByteArray& data)
{
    append(data.constData(), data.size());
}

void ReceiveBuffer::append(const char* data, int size)
{
    const std::lock_guard locker(buffLock);
    makeRoom(size);
    bytes.append(data, size);
}

void ReceiveBuffer::makeRoom(int size)
{
    if (bytes.size() + size <= bytes.capacity()) {
        return;
    }
    if (head >= sizeLocked() / spareShare) { // each consumed byte moves eight others at most
        bytes.remove(0, head);
        head = 0;
    }
    const int needed = bytes.size() + size;
    if (needed > qMax(bytes.capacity(), keptCapacity)) {
        bytes.reserve(needed + needed / spareShare); // append would double it
    }
}

QByteArray ReceiveBuffer::peek(int count) const
{
    const std::lock_guard locker(buffLock);
    return QByteArray(bytes.constData() + head, qBound(0, count, sizeLocked()));
}

QByteArray ReceiveBuffer::take(int count)
{
    const std::lock_guard locker(buffLock);
    QByteArray taken(bytes.constData() + head, qBound(0, count, sizeLocked()));
    discardLocked(taken.size());
    return taken;
}

void ReceiveBuffer::discard(int count)
{
    const std::lock_guard locker(buffLock);
    discardLocked(qBound(0, count, sizeLocked()));
}

int ReceiveBuffer::size() const
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

void ReceiveBuffer::discardLocked(int count)
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
