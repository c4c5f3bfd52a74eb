// SPDX-License-Identifier: MIT
#include "osdendpoint.h"

#include "biz_osd_cmdswork.h"
#include "detachedthread.h"
#include "osdframe.h"
#include "osdrecordsource.h"
#include "processend.h"

#include <chrono>
#include <thread>

namespace
{

constexpr std::chrono::milliseconds pollInterval{3};
constexpr int peekLength = 1024;

void handOver(const model_OsdParam& record)
{
    if (!processend::over()) {
        biz_Osd_CMDSWork::addToReceiveQueue(record);
    }
}

// The polls of all endpoints fall on the same instants: one timer interrupt wakes a whole wall,
// which costs a third less than a hundred of them.
std::chrono::steady_clock::time_point nextPoll()
{
    using std::chrono::steady_clock;
    const auto now = steady_clock::now();
    return now + pollInterval - now.time_since_epoch() % steady_clock::duration(pollInterval);
}

} // namespace

void OsdEndpoint::setAddress(const QString& ip, int port)
{
    const std::lock_guard lock(addressLock);
    strIP = ip;
    nPort = port;
}

QString OsdEndpoint::ip() const
{
    const std::lock_guard lock(addressLock);
    return strIP;
}

int OsdEndpoint::port() const
{
    const std::lock_guard lock(addressLock);
    return nPort;
}

bool OsdEndpoint::isAddressedBy(const QString& text) const
{
    const std::lock_guard lock(addressLock);
    return strIP == text;
}

std::shared_ptr<OsdEndpoint::Run> OsdEndpoint::run() const
{
    const std::lock_guard lock(runLock);
    return latest;
}

std::shared_ptr<OsdEndpoint::Run> OsdEndpoint::beginRun()
{
    const std::lock_guard lock(runLock);
    latest->stop();
    latest = std::make_shared<Run>(osdrecordsource::shared());
    return latest;
}

bool OsdEndpoint::findAcknowledgement(const QByteArray& peeked)
{
    const int mark = peeked.indexOf(osdframe::acknowledgementMark);
    if (mark < 0) {
        buffData.discard(peeked.size());
        return false;
    }
    buffData.discard(mark);
    return buffData.peek(peekLength).size() >= osdframe::acknowledgementLength;
}

void OsdEndpoint::deal(const Run& run)
{
    bool refused = false;
    while (waitForBytes(run)) {
        refused = !parseOnce();
    }
    if (refused) {
        handOverHere();
    }
}

// The run is looked at before each pause, not behind it: what came in just before a stop is still
// parsed.
bool OsdEndpoint::waitForBytes(const Run& run) const
{
    while (run.deals() && !processend::begun()) {
        std::this_thread::sleep_until(nextPoll());
        if (buffData.size() >= osdframe::acknowledgementLength) {
            return true;
        }
    }
    return false;
}

bool OsdEndpoint::parseOnce()
{
    const std::lock_guard lock(passLock);
    if (!findAcknowledgement(buffData.peek(peekLength))) {
        return true;
    }
    const model_OsdParam record =
        osdframe::acknowledgement(ip(), buffData.peek(osdframe::acknowledgementLength));
    if (!startDetached([record] { handOver(record); })) {
        return false;
    }
    buffData.discard(osdframe::acknowledgementLength);
    return true;
}

QByteArray OsdEndpoint::takeAcknowledgement()
{
    const std::lock_guard lock(passLock);
    while (buffData.size() >= osdframe::acknowledgementLength) {
        if (findAcknowledgement(buffData.peek(peekLength))) {
            return buffData.take(osdframe::acknowledgementLength);
        }
    }
    return {};
}

void OsdEndpoint::handOverHere()
{
    for (QByteArray bytes = takeAcknowledgement(); !bytes.isEmpty();
         bytes = takeAcknowledgement()) {
        handOver(osdframe::acknowledgement(ip(), bytes));
    }
}
