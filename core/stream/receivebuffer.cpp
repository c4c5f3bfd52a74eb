// SPDX-License-Identifier: MIT
#include "receivebuffer.h"

#include <cstring>

namespace
{

constexpr int keptCapacity = 16 * 1024; // an emptied buffer keeps no more than this
constexpr int spareShare = 8;

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
    if (head >= sizeLocked() / spareShare) {
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

int ReceiveBuffer::peek(char* out, int count) const
{
    const std::lock_guard locker(buffLock);
    const int copied = qBound(0, count, sizeLocked());
    std::memcpy(out, bytes.constData() + head, static_cast<std::size_t>(copied));
    return copied;
}

QByteArray ReceiveBuffer::take(int count)
{
    const std::lock_guard locker(buffLock);
    QByteArray taken(bytes.constData() + head, qBound(0, count, sizeLocked()));
    discardLocked(taken.size());
    return taken;
}

bool ReceiveBuffer::takeWhole(int count, QByteArray& out, int before)
{
    const std::lock_guard locker(buffLock);
    discardLocked(qBound(0, before, sizeLocked()));
    if (count > sizeLocked()) {
        return false;
    }
    out = QByteArray(bytes.constData() + head, count);
    discardLocked(count);
    return true;
}

void ReceiveBuffer::discard(int count)
{
    const std::lock_guard locker(buffLock);
    discardLocked(qBound(0, count, sizeLocked()));
}

bool ReceiveBuffer::seek(Found (*find)(const char* data, int size), char* out, int size)
{
    const std::lock_guard locker(buffLock);
    const Found found = find(bytes.constData() + head, sizeLocked());
    discardLocked(qBound(0, found.garbage, sizeLocked()));
    if (!found.isHead || size > sizeLocked()) {
        return false;
    }
    std::memcpy(out, bytes.constData() + head, static_cast<std::size_t>(size));
    return true;
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
