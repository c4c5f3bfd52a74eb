// SPDX-License-Identifier: MIT
#include "replystream.h"

#include <numeric>
#include <thread>

namespace
{

constexpr int blockLooks = 150;
constexpr std::chrono::milliseconds blockPause{4};

} // namespace

ReplyStream::~ReplyStream() = default;

std::shared_ptr<ReplyStream> ReplyStream::successor() const
{
    auto next = std::make_shared<ReplyStream>();
    next->setOriginType(deviceType);
    next->setOriginName(originName());
    return next;
}

bool ReplyStream::skipTo(ReceiveBuffer::Size index, ReceiveBuffer::Size inspected)
{
    received.discard(static_cast<quint16>(index < 0 ? inspected : index));
    return index >= 0;
}

bool ReplyStream::takeBlock(quint16 length, QByteArray& block)
{
    for (int look = 1; received.size() < length; ++look) {
        if (processend::begun()) {
            return false;
        }
        pause(blockPause);
        if (look == blockLooks) {
            return false;
        }
    }
    block = received.take(length);
    return block.isEmpty() ||
           static_cast<char>(std::accumulate(block.cbegin(), block.cend() - 1, 0)) == block.back();
}

void ReplyStream::pause(std::chrono::milliseconds duration)
{
    isPausing = true;
    sleep(duration);
    isPausing = false;
}

void ReplyStream::sleep(std::chrono::milliseconds duration)
{
    std::this_thread::sleep_for(duration);
}

void ReplyStream::setOriginType(model_GlobalEnum::DeviceType type)
{
    deviceType.store(type, std::memory_order_relaxed);
}

void ReplyStream::setOriginName(const QString& newName)
{
    const std::lock_guard lock(nameLock);
    name = newName;
}

QString ReplyStream::originName() const
{
    const std::lock_guard lock(nameLock);
    return name;
}

void ReplyStream::stamp(model_Protocoldata& record, quint8 mark) const
{
    record.bKeyFlag = mark;
    record.featureCode = deviceType.load(std::memory_order_relaxed);
}
