// SPDX-License-Identifier: MIT
#pragma once

#include "receivebuffer.h"

#include <QByteArray>
#include <QString>

#include <atomic>
#include <memory>
#include <mutex>

class ICoreOsdBase;

/// What one endpoint's threads share: its address, the bytes it sent that are not consumed yet, and
/// the parser that cuts its acknowledgements out of them. A Core_Osd_TcpSocket, its worker thread
/// and its parser thread each hold a share, so that none of them has to outlive another.
///
/// Any thread.
class OsdEndpoint
{
public:
    /// One life of the worker, from its start to its stop. A stop is final: the next start gets a
    /// run of its own, and whatever still belongs to the old one sees that it is over.
    class Run
    {
    public:
        /// \a source is the manager whose records are sent, or null.
        explicit Run(const ICoreOsdBase* source) : recordSource(source) {}

        const ICoreOsdBase* source() const { return recordSource; }
        bool deals() const { return bDealRun.load(std::memory_order_acquire); }
        void stop() { bDealRun.store(false, std::memory_order_release); }

    private:
        const ICoreOsdBase* const recordSource;
        std::atomic<bool> bDealRun{true};
    };

    void setAddress(const QString& ip, int port);
    QString ip() const;
    int port() const;
    bool isAddressedBy(const QString& text) const; ///< exact: case and blanks count

    std::shared_ptr<Run> run() const; ///< the latest one

    /// Ends the latest one and begins another, which listens to the shared manager as it is now.
    std::shared_ptr<Run> beginRun();
    ReceiveBuffer& received() { return buffData; }

    /// Looks for the acknowledgement mark in bytes that were peeked off the buffer. If it is there,
    /// drops what is before it and tells whether an acknowledgement is complete; if not, drops as
    /// many bytes as were peeked.
    bool findAcknowledgement(const QByteArray& peeked);

    /// Takes the next acknowledgement off the buffer, with what is before it; empty if there is
    /// none, and then fewer than three bytes are left.
    QByteArray takeAcknowledgement();

    /// The parser: until the run is stopped, every 3 ms takes at most one acknowledgement off the
    /// buffer and hands it to the host on a short thread of its own. One that the system refuses
    /// that thread stays in the buffer for the next pass; what is left so when the run stops is
    /// handed over from here.
    void deal(const Run& run);

private:
    bool waitForBytes(const Run& run) const;
    bool parseOnce();
    void handOverHere();

    mutable std::mutex addressLock; // strIP, nPort; a leaf
    mutable std::mutex runLock;     // latest; a leaf
    std::mutex passLock;            // one parser's pass at a time; the buffer's lock goes below it
    QString strIP = QStringLiteral("127.0.0.1");
    int nPort = 10001;
    std::shared_ptr<Run> latest = std::make_shared<Run>(nullptr);
    ReceiveBuffer buffData;
};
