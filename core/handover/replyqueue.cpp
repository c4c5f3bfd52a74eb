// SPDX-License-Identifier: MIT
#include "replyqueue.h"

#include "handoverthread.h"
#include "hostcontract.h"
#include "linktap.h"
#include "processend.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <new>
#include <optional>
#include <thread>

namespace
{

constexpr std::chrono::milliseconds lockPause{1};
constexpr qint64 waitingLimit = qint64{16} * 1024 * 1024;

// A record, or nothing: the flag alone is to be raised.
using Delivery = std::optional<model_Protocoldata>;

std::atomic<qint64> waitingBytes{0};
std::atomic<bool> raiseWanted{false};

qint64 weight(const model_Protocoldata& record)
{
    return static_cast<qint64>(sizeof record) + record.arryDatablock.size();
}

void raise()
{
    raiseWanted = false;
    biz_CMDSWork::bRetFlag = true;
}

bool raisedAtOnce()
{
    const std::unique_lock lock(biz_CMDSWork::HexCmdlock, std::try_to_lock);
    if (lock) {
        raise();
    }
    return lock.owns_lock();
}

template <class Append>
bool appendedAtOnce(Append&& append)
{
    const std::unique_lock queueLock(biz_CMDSWork::receiveHexCmdlock, std::try_to_lock);
    if (!queueLock) {
        return false;
    }
    const std::unique_lock flagLock(biz_CMDSWork::HexCmdlock, std::try_to_lock);
    if (flagLock) {
        append();
        raise();
    }
    return flagLock.owns_lock();
}

void appendAll(std::deque<Delivery>& batch)
{
    for (Delivery& delivery : batch) {
        if (delivery) {
            waitingBytes -= weight(*delivery);
            biz_CMDSWork::receivequeueHexCmd.push_back(std::move(*delivery));
        }
    }
}

// Tries both locks in turn: a host that keeps one of them does not keep the flag from being raised.
void deliver(std::deque<Delivery>& batch)
{
    const auto isRecord = [](const Delivery& delivery) { return delivery.has_value(); };
    const bool hasRecords = std::any_of(batch.begin(), batch.end(), isRecord);
    while (!processend::over()) {
        if (hasRecords && appendedAtOnce([&batch] { appendAll(batch); })) {
            return;
        }
        if ((!raiseWanted || raisedAtOnce()) && !hasRecords) {
            return;
        }
        std::this_thread::sleep_for(lockPause);
    }
}

void clearAll(std::deque<std::shared_ptr<biz_CMDSWork>>& batch)
{
    for (const auto& work : batch) {
        if (processend::over()) {
            return;
        }
        work->clearQueue();
    }
}

// Room for the host's class, whose size the library does not know.
struct WorkRoom {
    WorkRoom() = default;
    ~WorkRoom() { work->~biz_CMDSWork(); }
    WorkRoom(const WorkRoom&) = delete;
    WorkRoom& operator=(const WorkRoom&) = delete;

    alignas(std::max_align_t) std::array<std::byte, hostcontract::workSizeLimit> bytes;
    biz_CMDSWork* const work = new (bytes.data()) biz_CMDSWork;
};

// Never destroyed: their threads may be at work while the process ends.
HandOverThread<Delivery>& deliveries()
{
    static auto* const instance = new HandOverThread<Delivery>(deliver);
    return *instance;
}

HandOverThread<std::shared_ptr<biz_CMDSWork>>& clears()
{
    static auto* const instance = new HandOverThread<std::shared_ptr<biz_CMDSWork>>(clearAll);
    return *instance;
}

// The host may take the record as soon as it has been handed on: observers get a copy.
template <class HandOn>
void tellBehind(model_Protocoldata&& record, const LinkTap& tap, HandOn&& handOn)
{
    const auto told = tap.isWatched() ? std::optional(record) : std::nullopt;
    handOn(std::move(record));
    if (told) {
        tap.tellOf([&told] {
            return LinkEvent{LinkEvent::Kind::Reply, {}, {}, told->strKey2, 0, &*told};
        });
    }
}

void appendAndRaise(model_Protocoldata&& record)
{
    const processend::Call call;
    if (!call) {
        return;
    }
    const std::lock_guard lock(biz_CMDSWork::receiveHexCmdlock);
    if (processend::over()) { // the host has kept it for long
        return;
    }
    biz_CMDSWork::receivequeueHexCmd.push_back(std::move(record));
    replyqueue::setRetFlag(true);
}

void appendOrPut(model_Protocoldata&& record)
{
    const processend::Call call;
    if (!call) {
        return;
    }
    const auto append = [&record] {
        biz_CMDSWork::receivequeueHexCmd.push_back(std::move(record));
    };
    if (deliveries().size() == 0 && appendedAtOnce(append)) {
        return;
    }
    waitingBytes += weight(record);
    deliveries().put(std::move(record));
}

} // namespace

bool replyqueue::start()
{
    return deliveries().start() && clears().start();
}

void replyqueue::append(model_Protocoldata record, const LinkTap& tap)
{
    tellBehind(std::move(record), tap, appendAndRaise);
}

void replyqueue::post(model_Protocoldata record, const LinkTap& tap)
{
    tellBehind(std::move(record), tap, appendOrPut);
}

bool replyqueue::isFull()
{
    return waitingBytes >= waitingLimit;
}

void replyqueue::setRetFlag(bool on)
{
    const std::lock_guard lock(biz_CMDSWork::HexCmdlock);
    biz_CMDSWork::bRetFlag = on;
}

void replyqueue::raiseRetFlag()
{
    const processend::Call call;
    if (call && !raisedAtOnce() && !raiseWanted.exchange(true)) {
        deliveries().put(std::nullopt);
    }
}

std::shared_ptr<biz_CMDSWork> replyqueue::makeWork()
{
    const auto room = std::make_shared<WorkRoom>();
    return {room, room->work};
}

void replyqueue::clearElsewhere(const std::shared_ptr<biz_CMDSWork>& work)
{
    clears().put(work);
}
