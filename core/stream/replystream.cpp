// SPDX-License-Identifier: MIT
#include "replystream.h"

#include <numeric>
#include <thread>

namespace
{

constexpr int blockLooks = 150;
constexpr std::chrono::milliseconds blockPause{4};

} // namespace

ReplyStream::ReplyStream(std::shared_ptr<const LinkTap> watched) : tap(std::move(watched)) {}
ReplyStream::~ReplyStream() = default;

std::shared_ptr<ReplyStream> ReplyStream::successor() const
{
    auto next = std::make_shared<ReplyStream>(tap);
    next->setOriginType(deviceType);
    next->setOriginName(originName());
    return next;
}

void ReplyStream::skip(ReceiveBuffer::Size count)
{
    if (count > 0 && tap->isWatched()) {
        tap->tell(LinkEvent::Kind::Skipped, received.take(count));
    } else {
        received.discard(count);
    }
}

bool ReplyStream::skipTo(ReceiveBuffer::Size index, ReceiveBuffer::Size inspected)
{
    skip(static_cast<quint16>(index < 0 ? inspected : index));
    return index >= 0;
}

bool ReplyStream::takeBlock(const model_Protocoldata& reply, quint16 length, QByteArray& block)
{
    for (int look = 1; received.size() < length; ++look) {
        if (processend::begun()) {
            return false;
        }
        pause(blockPause);
        if (look == blockLooks) {
            tap->tellOf([&] {
                return LinkEvent{LinkEvent::Kind::Refused,
                                 LinkEvent::Check::BlockMissing,
                                 received.peek(length),
                                 {},
                                 0,
                                 &reply};
            });
            return false;
        }
    }
    block = received.take(length);
    if (block.isEmpty() ||
        static_cast<char>(std::accumulate(block.cbegin(), block.cend() - 1, 0)) == block.back()) {
        return true;
    }
    tap->refuse(LinkEvent::Check::BlockChecksum, block, &reply);
    return false;
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
