// SPDX-License-Identifier: MIT
#include "replyqueue.h"

#include "biz_cmdswork.h"
#include "debugline.h"
#include "detachedthread.h"
#include "drainqueue.h"
#include "processend.h"
#include "utility_manage.h"

#include <QCoreApplication>
#include <QTimer>

#include <atomic>

namespace
{

constexpr int retryPauseMs = 10;

struct Handover {
    model_Protocoldata record;
    const char* failure = nullptr; // set: no record, a failure to report
};

void appendRecords(std::deque<Handover>& batch, std::size_t& next)
{
    const std::lock_guard lock(biz_CMDSWork::receiveHexCmdlock);
    if (processend::over()) {
        return;
    }
    for (; next < batch.size() && batch[next].failure == nullptr; ++next) {
        biz_CMDSWork::receivequeueHexCmd.push_back(std::move(batch[next].record));
    }
    replyqueue::setRetFlag(true);
}

void handOver(std::deque<Handover>& batch)
{
    std::size_t next = 0;
    while (next < batch.size() && !processend::over()) {
        if (batch[next].failure != nullptr) {
            replyqueue::reportFailure(batch[next++].failure);
        } else {
            appendRecords(batch, next);
        }
    }
}

// Never destroyed: a detached thread may still drain it while the process ends.
DrainQueue<Handover>& backlog()
{
    static auto* const instance = new DrainQueue<Handover>(handOver);
    return *instance;
}

std::atomic<bool> retryPending{false};

void retryLater()
{
    if (QCoreApplication::instance() == nullptr || retryPending.exchange(true)) {
        return;
    }
    QTimer::singleShot(retryPauseMs, QCoreApplication::instance(), [] {
        retryPending = false;
        if (!backlog().drainElsewhere()) {
            retryLater();
        }
    });
}

void putInBacklog(Handover handover)
{
    if (!backlog().put(std::move(handover))) {
        retryLater();
    }
}

bool appendedAtOnce(model_Protocoldata& record)
{
    if (!backlog().idle()) {
        return false;
    }
    const std::unique_lock queueLock(biz_CMDSWork::receiveHexCmdlock, std::try_to_lock);
    if (!queueLock) {
        return false;
    }
    const std::unique_lock flagLock(biz_CMDSWork::HexCmdlock, std::try_to_lock);
    if (!flagLock) {
        return false;
    }
    biz_CMDSWork::receivequeueHexCmd.push_back(std::move(record));
    biz_CMDSWork::bRetFlag = true;
    return true;
}

} // namespace

void replyqueue::append(model_Protocoldata record)
{
    const std::lock_guard lock(biz_CMDSWork::receiveHexCmdlock);
    biz_CMDSWork::receivequeueHexCmd.push_back(std::move(record));
    setRetFlag(true);
}

void replyqueue::post(model_Protocoldata record)
{
    if (!appendedAtOnce(record)) {
        putInBacklog({std::move(record), nullptr});
    }
}

void replyqueue::reportFailure(const char* text)
{
    setRetFlag(true);
    qCDebug(debugLine) << text;
    Utility_Manage::writeLog(QLatin1String(text));
}

void replyqueue::postFailure(const char* text)
{
    putInBacklog({model_Protocoldata{}, text});
}

void replyqueue::setRetFlag(bool on)
{
    const std::lock_guard lock(biz_CMDSWork::HexCmdlock);
    biz_CMDSWork::bRetFlag = on;
}

void replyqueue::clearElsewhere(const std::shared_ptr<biz_CMDSWork>& work)
{
    if (!startDetached([work] { work->clearQueue(); })) {
        work->clearQueue();
    }
}
