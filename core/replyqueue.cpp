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

// A record, or a failure to report, or business whose queue is to be cleared.
struct Handover {
    model_Protocoldata record;
    const char* failure = nullptr;
    std::shared_ptr<biz_CMDSWork> cleared;

    bool isRecord() const { return failure == nullptr && cleared == nullptr; }
};

void appendRecords(std::deque<Handover>& batch, std::size_t& next)
{
    const std::lock_guard lock(biz_CMDSWork::receiveHexCmdlock);
    if (processend::over()) {
        return;
    }
    for (; next < batch.size() && batch[next].isRecord(); ++next) {
        biz_CMDSWork::receivequeueHexCmd.push_back(std::move(batch[next].record));
    }
    replyqueue::setRetFlag(true);
}

void handOver(std::deque<Handover>& batch)
{
    std::size_t next = 0;
    while (next < batch.size() && !processend::over()) {
        const Handover& handover = batch[next];
        if (handover.isRecord()) {
            appendRecords(batch, next);
            continue;
        }
        if (handover.failure != nullptr) {
            replyqueue::reportFailure(handover.failure);
        } else {
            handover.cleared->clearQueue();
        }
        ++next;
    }
}

// Never destroyed: a detached thread may still drain it while the process ends.
DrainQueue<Handover>& backlog()
{
    static auto* const instance = new DrainQueue<Handover>(handOver);
    return *instance;
}

std::atomic<bool> retryPending{false};

// The one retry that is pending. It goes with its timer, so that an application object that ends
// before the timer does leaves none pending for the next one.
class Retry
{
public:
    Retry() = default;
    ~Retry() { end(); }
    Retry(const Retry&) = delete;
    Retry& operator=(const Retry&) = delete;

    void end()
    {
        if (!ended) {
            ended = true;
            retryPending = false;
        }
    }

private:
    bool ended = false;
};

// The calling thread may have no event loop, so the timer is started by the main thread's.
void retryLater()
{
    QCoreApplication* const application = QCoreApplication::instance();
    if (application == nullptr || retryPending.exchange(true)) {
        return;
    }
    const auto startTimer = [application, retry = std::make_shared<Retry>()] {
        QTimer::singleShot(retryPauseMs, application, [retry] {
            retry->end();
            if (!backlog().drainElsewhere()) {
                retryLater();
            }
        });
    };
    QMetaObject::invokeMethod(application, startTimer, Qt::QueuedConnection);
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
    backlog().drainHere(); // what was refused a thread: a clear among it must not take this record
    const std::lock_guard lock(biz_CMDSWork::receiveHexCmdlock);
    if (processend::over()) {
        return;
    }
    biz_CMDSWork::receivequeueHexCmd.push_back(std::move(record));
    setRetFlag(true);
}

void replyqueue::post(model_Protocoldata record)
{
    if (!appendedAtOnce(record)) {
        putInBacklog({std::move(record), nullptr, nullptr});
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
    putInBacklog({model_Protocoldata{}, text, nullptr});
}

void replyqueue::setRetFlag(bool on)
{
    const std::lock_guard lock(biz_CMDSWork::HexCmdlock);
    biz_CMDSWork::bRetFlag = on;
}

void replyqueue::clearElsewhere(const std::shared_ptr<biz_CMDSWork>& work)
{
    if (!startDetached([work] { work->clearQueue(); })) {
        putInBacklog({model_Protocoldata{}, nullptr, work});
    }
}
