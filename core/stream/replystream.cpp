// SPDX-License-Identifier: MIT
#include "replystream.h"

#include "detachedthread.h"
#include "processend.h"
#include "replyqueue.h"

#include <array>
#include <numeric>
#include <thread>

namespace
{

constexpr int blockLooks = 150;
constexpr std::chrono::milliseconds blockPause{4};

// Modulo 256, in lanes that the compiler adds at once.
quint8 sumOf(const char* bytes, int size)
{
    constexpr int lanes = 16;
    std::array<quint8, lanes> sums{};
    int done = 0;
    for (; done + lanes <= size; done += lanes) {
        for (std::size_t lane = 0; lane < lanes; ++lane) {
            sums[lane] = static_cast<quint8>(sums[lane] + static_cast<quint8>(bytes[lane]));
        }
        bytes += lanes;
    }
    unsigned sum = std::accumulate(sums.begin(), sums.end(), 0U);
    for (; done < size; ++done) {
        sum += static_cast<quint8>(*bytes++);
    }
    return static_cast<quint8>(sum);
}

} // namespace

ReplyStream::~ReplyStream() = default;

std::shared_ptr<ReplyStream> ReplyStream::successor() const
{
    auto next = emptyStream();
    next->setDeviceType(originType());
    next->setOriginName(originName());
    return next;
}

bool ReplyStream::startParser(const std::shared_ptr<ReplyStream>& stream)
{
    // Before the thread starts: a stop that comes before its first instruction must wait for it.
    stream->bDealExit.store(false, std::memory_order_relaxed);
    stream->setDealFlag(true);
    if (replyqueue::start() && startDetached([stream] { stream->parse(); })) {
        return true;
    }
    stream->setDealFlag(false);
    stream->bDealExit.store(true, std::memory_order_release);
    return false;
}

void ReplyStream::parse()
{
    bDealExit.store(false, std::memory_order_relaxed);
    while (bDealRun.load(std::memory_order_relaxed) && !processend::begun()) {
        pause(interval);
        if (!replyqueue::isFull()) {
            pass();
        }
    }
    bDealExit.store(true, std::memory_order_release);
}

void ReplyStream::pass()
{
    std::array<char, longestHead> head{};
    if (buffData.seek(search.find, head.data(), search.headLength)) {
        handingOn.store(true, std::memory_order_relaxed);
        cut(head.data());
        handingOn.store(false, std::memory_order_relaxed);
    }
}

bool ReplyStream::checkCMD(const QByteArray& data)
{
    return data.size() >= search.headLength && cut(data.constData());
}

void ReplyStream::pause(std::chrono::milliseconds duration)
{
    std::this_thread::sleep_for(duration);
}

bool ReplyStream::skipTo(const QByteArray& data)
{
    const int garbage = search.firstMark(data.constData(), data.size());
    buffData.discard(static_cast<quint16>(garbage < 0 ? data.size() : garbage));
    return garbage >= 0;
}

bool ReplyStream::awaitBlock(quint16 length, QByteArray& block, int headLength)
{
    const bool before = handingOn.exchange(false, std::memory_order_relaxed);
    bool came = false;
    for (int look = 0; look < blockLooks && !came && !processend::begun(); ++look) {
        came = buffData.takeWhole(length, block, headLength);
        if (!came) {
            headLength = 0;
            pause(blockPause);
        }
    }
    handingOn.store(before, std::memory_order_relaxed);
    return came;
}

bool ReplyStream::isBlockIntact(const QByteArray& block)
{
    if (block.isEmpty()) {
        return true;
    }
    return sumOf(block.constData(), block.size() - 1) == static_cast<quint8>(block.back());
}

void ReplyStream::setDeviceType(model_GlobalEnum::DeviceType newType)
{
    deviceType.store(newType, std::memory_order_relaxed);
}

model_GlobalEnum::DeviceType ReplyStream::originType() const
{
    return deviceType.load(std::memory_order_relaxed);
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
