// SPDX-License-Identifier: MIT
#pragma once

#include "receivebuffer.h"

#include <QByteArray>
#include <QString>

#include <atomic>
#include <memory>
#include <mutex>

/// What one endpoint's threads share: its address, the bytes it sent that are not consumed yet, and
/// the parser that cuts its acknowledgements out of them. Any thread.
class OsdEndpoint
{
public:
    void setAddress(const QString& ip, int port);
    QString ip() const;
    int port() const;
    bool isAddressedBy(const QString& text) const; ///< exact: case and blanks count

    void begin() { bDealRun = true; }
    void stop() { bDealRun = false; }
    bool deals() const { return bDealRun; } ///< true until the first stop

    ReceiveBuffer& received() { return buffData; }

    /// Looks for the acknowledgement mark in bytes that were peeked off the buffer. If it is there,
    /// drops what is before it and tells whether an acknowledgement is complete; if not, drops as
    /// many bytes as were peeked.
    bool findAcknowledgement(const QByteArray& peeked);

    /// One pass of the parser: takes the acknowledgement it finds off the buffer, else nothing.
    QByteArray parseOnce();

    /// The parser: until stop or the end of the process, every 3 ms takes at most one
    /// acknowledgement off the buffer and hands it to the host on a short thread of its own, or on
    /// this one if the system refuses that. While 32 such threads are in the host nothing is taken;
    /// what has waited so follows when all are back, one by one and in order.
    void deal();

    /// Tells the log that the system had no descriptor or thread left for this endpoint.
    void logShortage() const;

private:
    bool waitForBytes();
    bool mayHandOver();
    void handOver(const QByteArray& acknowledgement);

    mutable std::mutex addressLock; // strIP, nPort; a leaf
    std::mutex passLock;            // one parser's pass at a time; the buffer's lock goes below it
    QString strIP = QStringLiteral("127.0.0.1");
    int nPort = 10001;
    ReceiveBuffer buffData;
    std::atomic<bool> bDealRun{true};
    std::atomic<bool> inOrder{
        false}; // the host was behind, and the buffer has not been empty since
    std::shared_ptr<std::atomic<int>> underWay = std::make_shared<std::atomic<int>>(0);
};
