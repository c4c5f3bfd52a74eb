// SPDX-License-Identifier: MIT
#include "osdendpoint.h"

#include "biz_osd_cmdswork.h"
#include "osdframe.h"

namespace
{

constexpr std::chrono::milliseconds pollInterval{3};
constexpr int peekLength = 1024;
constexpr int handOverLimit = 32; // threads that a host which blocks may keep

} // namespace

void OsdEndpoint::setAddress(const Address& to)
{
    const std::lock_guard lock(addressLock);
    current = to;
}

OsdEndpoint::Address OsdEndpoint::address() const
{
    const std::lock_guard lock(addressLock);
    return current;
}

bool OsdEndpoint::findAcknowledgement(const QByteArray& peeked)
{
    const auto mark = peeked.indexOf(osdframe::acknowledgementMark);
    if (mark < 0) {
        received.discard(peeked.size());
        return false;
    }
    received.discard(mark);
    return received.size() >= osdframe::acknowledgementLength;
}

QByteArray OsdEndpoint::parseOnce()
{
    const std::lock_guard lock(passLock);
    return findAcknowledgement(received.peek(peekLength))
               ? received.take(osdframe::acknowledgementLength)
               : QByteArray();
}

// The token is asked before each pause, not behind it: what came just before a stop is parsed.
void OsdEndpoint::deal(const std::function<void()>& look)
{
    while (token.goesOn()) {
        std::this_thread::sleep_for(pollInterval);
        look();
        if (received.size() < osdframe::acknowledgementLength) {
            inOrder = false;
            continue;
        }
        const int count = *underWay;
        inOrder = inOrder || count >= handOverLimit;
        const QByteArray bytes = count == 0 || !inOrder ? parseOnce() : QByteArray();
        if (!bytes.isEmpty()) {
            handOver(bytes);
        }
    }
}

void OsdEndpoint::handOver(const QByteArray& acknowledgement)
{
    const auto run = [record = osdframe::acknowledgement(address().ip, acknowledgement),
                      count = underWay] {
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
