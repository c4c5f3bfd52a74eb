// SPDX-License-Identifier: MIT
#include "osdendpoint.h"

#include "biz_osd_cmdswork.h"
#include "detachedthread.h"
#include "osdframe.h"
#include "processend.h"
#include "utility_manage.h"

#include <chrono>
#include <thread>

namespace
{

constexpr std::chrono::milliseconds pollInterval{3};
constexpr int peekLength = 1024;
constexpr int mostUnderWay = 32; // threads that a host which blocks may keep

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

QByteArray OsdEndpoint::parseOnce()
{
    const std::lock_guard lock(passLock);
    return findAcknowledgement(buffData.peek(peekLength))
               ? buffData.take(osdframe::acknowledgementLength)
               : QByteArray();
}

void OsdEndpoint::deal()
{
    while (waitForBytes()) {
        const QByteArray bytes = mayHandOver() ? parseOnce() : QByteArray();
        if (!bytes.isEmpty()) {
            handOver(bytes);
        }
    }
}

// The flag is looked at before each pause, not behind it: what came in just before a stop is still
// parsed.
bool OsdEndpoint::waitForBytes()
{
    while (deals() && !processend::begun()) {
        std::this_thread::sleep_until(nextPoll());
        if (buffData.size() >= osdframe::acknowledgementLength) {
            return true;
        }
        inOrder = false;
    }
    return false;
}

bool OsdEndpoint::mayHandOver()
{
    const int count = *underWay;
    inOrder = inOrder || count >= mostUnderWay;
    return count == 0 || !inOrder;
}

void OsdEndpoint::handOver(const QByteArray& acknowledgement)
{
    const auto run = [record = osdframe::acknowledgement(ip(), acknowledgement), count = underWay] {
        if (!processend::over()) {
            biz_Osd_CMDSWork::addToReceiveQueue(record);
        }
        --*count;
    };
    ++*underWay;
    if (!startDetached(run)) {
        run();
    }
}

void OsdEndpoint::logShortage() const
{
    if (processend::over()) {
        return;
    }
    Utility_Manage::writeLog(
        QStringLiteral("OSD endpoint %1, port %2: not connected, no descriptor or thread left")
            .arg(ip())
            .arg(port()));
}
