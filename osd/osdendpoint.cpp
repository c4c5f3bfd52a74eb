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

void OsdEndpoint::note(LinkEvent::Kind kind, const char* bytes, int size)
{
    if (tap->isWatched()) {
        const Address of = address();
        const std::lock_guard lock(noteLock);
        noted.push_back({kind, {}, {bytes, size}, of.ip, static_cast<quint16>(of.port)});
    }
}

void OsdEndpoint::tellNoted()
{
    std::vector<LinkEvent> told;
    {
        const std::lock_guard lock(noteLock);
        told.swap(noted);
    }
    for (const LinkEvent& event : told) {
        tap->tellOf([&event] { return event; });
    }
}

bool OsdEndpoint::findAcknowledgement(const QByteArray& peeked)
{
    const auto mark = peeked.indexOf(osdframe::acknowledgementMark);
    const auto skipped = mark < 0 ? peeked.size() : mark;
    received.discard(skipped);
    if (skipped > 0) {
        note(LinkEvent::Kind::Skipped, peeked.constData(), static_cast<int>(skipped));
    }
    return mark >= 0 && received.size() >= osdframe::acknowledgementLength;
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
        tellNoted();
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
    tellNoted();
}

void OsdEndpoint::handOver(const QByteArray& acknowledgement)
{
    const Address from = address();
    const auto run = [record = osdframe::acknowledgement(from.ip, acknowledgement), acknowledgement,
                      from, observers = tap, count = underWay] {
        if (!processend::over()) {
            biz_Osd_CMDSWork::addToReceiveQueue(record);
            observers->tellOf([&] {
                return LinkEvent{LinkEvent::Kind::Reply,          {},      acknowledgement, from.ip,
                                 static_cast<quint16>(from.port), nullptr, &record};
            });
        }
        --*count;
    };
    ++*underWay;
    if (!startDetached(run)) {
        run();
    }
}
