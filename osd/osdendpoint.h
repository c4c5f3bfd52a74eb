// SPDX-License-Identifier: MIT
#pragma once

#include "linktap.h"
#include "receivebuffer.h"
#include "runtoken.h"

#include <QByteArray>
#include <QString>

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

/// What the threads of one endpoint share: its address, the bytes received from it, and the parser
/// that cuts its acknowledgements out of them. Any thread; only deal blocks.
class OsdEndpoint
{
public:
    struct Address {
        QString ip;
        int port = 0;
    };

    void setAddress(const Address& to);
    Address address() const;

    /// Looks for the acknowledgement mark in bytes that were peeked off the buffer. If it is there,
    /// drops what is before it and tells whether an acknowledgement is complete; if not, drops as
    /// many bytes as were peeked.
    bool findAcknowledgement(const QByteArray& peeked);

    /// One pass of the parser: takes the acknowledgement it finds off the buffer, else nothing.
    QByteArray parseOnce();

    /// The parser's loop: every 3 ms, until the token stops it, takes at most one acknowledgement
    /// off the buffer and hands it to the host on a short thread of its own, or on this one if the
    /// system refuses that. While 32 such threads are in the host it takes nothing. When all have
    /// returned, what has waited follows one by one and in order.
    ///
    /// \a look is called before each pass, to fill the buffer; then what has been noted is told.
    void deal(const std::function<void()>& look);

    /// Keeps an event, if somebody watches, until tellNoted tells of it: events happen under locks.
    void note(LinkEvent::Kind kind, const char* bytes = nullptr, int size = 0);
    void tellNoted();

    std::shared_ptr<LinkTap> tap = std::make_shared<LinkTap>(); ///< replaced before begin, if ever
    RunToken token{true}; ///< stops the parser and the connection; runs while either does
    ReceiveBuffer received;

private:
    void handOver(const QByteArray& acknowledgement);

    std::mutex noteLock; // a leaf
    std::vector<LinkEvent> noted;
    mutable std::mutex addressLock; // a leaf
    Address current;
    std::mutex passLock; // one parser's pass at a time; the buffer's lock goes below it
    std::atomic<bool> inOrder{false}; // the limit was reached, and the buffer not empty since
    std::shared_ptr<std::atomic<int>> underWay = std::make_shared<std::atomic<int>>(0);
};
