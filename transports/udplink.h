// SPDX-License-Identifier: MIT
#pragma once

#include "drainqueue.h"

#include <QByteArray>
#include <QHostAddress>
#include <QString>

#include <atomic>
#include <memory>
#include <mutex>

class core_UDP;

/// One open UDP socket as its senders see it: a descriptor that several threads may write at once.
class UdpEndpoint
{
public:
    /// Borrows the descriptor of a bound socket; -1 for none, and every write then fails.
    explicit UdpEndpoint(qintptr descriptor);

    /// Sends one datagram. Returns its size, or -1 and nothing has left. Never blocks; any thread.
    qint64 write(const char* data, qint64 size, const QHostAddress& address, quint16 port);

    /// After it returns no write uses the descriptor any more: it may be closed. Waits for the
    /// writes that are under way, which never block.
    void retire();

    bool isRetired() const { return retired.load(); }

private:
    int descriptor;
    bool mapsIpv4 = false; // an IPv6 socket that carries both: IPv4 goes as ::ffff:a.b.c.d
    std::atomic<int> writesUnderWay{0};
    std::atomic<bool> retired{false};
};

/// How one frame went out.
enum class SendOutcome { Successful, Failed, BroadcastFailed, Unknown };

/// Where a core_UDP sends to and through: everything that its sending threads need, so that they
/// never touch the transport itself, which may be rebuilding its socket or be gone.
///
/// Any thread may use it. No lock is held while a datagram is written, while host code runs, or
/// while another lock is taken.
class UdpLink : public std::enable_shared_from_this<UdpLink>
{
public:
    explicit UdpLink(core_UDP* transport);

    /// From now on datagrams go through this endpoint.
    void attach(std::shared_ptr<UdpEndpoint> endpoint);

    /// The socket may be closed when this returns. Until the next attach, which must follow at
    /// once, sends wait, also between two datagrams of a frame: they are not to fail because the
    /// socket is being rebuilt.
    void detach();

    /// The transport is being destroyed; frames that are pending fail.
    void abandon();

    void setDeviceIP(const QString& ip);
    QString deviceIP() const;
    void setPort(int port) { nPort.store(port, std::memory_order_relaxed); }

    /// Sends a frame in datagrams of at most 540 bytes to the device and reports the outcome in the
    /// debug log and, when successful, the log.
    SendOutcome sendUnicast(const QByteArray& frame);

    /// Sends a frame as one datagram to 255.255.255.255, reported alike.
    SendOutcome sendBroadcast(const QByteArray& frame);

    /// sendUnicast on a detached thread, in order with the other frames sent this way. An unknown
    /// outcome makes the transport emit signalReInitUdp in its own thread.
    void sendLater(QByteArray frame);

private:
    struct Route {
        std::shared_ptr<UdpEndpoint> through; // null while there is no socket
        QHostAddress address;
        quint16 port = 0;
    };

    std::shared_ptr<UdpEndpoint> endpointNow() const;
    Route routeNow() const;
    std::shared_ptr<UdpEndpoint> exchange(std::shared_ptr<UdpEndpoint> next, bool rebuild);
    void requestReInit();
    struct Pending;
    static void sendPending(std::deque<Pending>& batch);

    // Each a leaf.
    mutable std::mutex destinationLock; // strDeviceIP, deviceAddress
    mutable std::mutex endpointLock;    // endpoint, rebuilding
    std::mutex transportLock;           // transport

    QString strDeviceIP;
    QHostAddress deviceAddress; // strDeviceIP parsed
    std::atomic<int> nPort{0};
    std::shared_ptr<UdpEndpoint> endpoint;
    bool rebuilding = false; // an attach follows at once
    core_UDP* transport;     // null once the transport is being destroyed

    struct Pending {
        std::shared_ptr<UdpLink> link; // keeps it until the frame is out
        QByteArray frame;
    };
    DrainQueue<Pending> outbox{sendPending};
};

/// The size of a datagram's share of a frame, in bytes.
constexpr int udpPieceSize = 540;

/// Which outcome a sum of write results stands for, given the frame's size.
SendOutcome classifySent(qint64 sum, int frameSize);

/// Sends a frame in pieces through \a write, a callable (const char*, int) -> qint64, and returns
/// the 32-bit sum of its results. A piece that fails ends the pieces; one last write of what was
/// not counted as sent follows, taken from the index that the sum gives, as QByteArray::mid takes
/// it.
template <class Write>
qint32 sendInPieces(const QByteArray& frame, Write&& write)
{
    qint32 sum = 0;
    int remainder = frame.size();
    const auto writeFrom = [&](int size) {
        int index = sum;
        if (index < 0) { // mid: what lies before the frame is cut off the length
            size = size + index >= frame.size() ? frame.size() : size + index;
            index = 0;
        }
        index = qMin(index, frame.size());
        size = qBound(0, size, frame.size() - index);
        return static_cast<qint32>(write(frame.constData() + index, size));
    };
    while (remainder > udpPieceSize) {
        const qint32 written = writeFrom(udpPieceSize);
        sum += written;
        if (written != udpPieceSize) {
            break;
        }
        remainder -= udpPieceSize;
    }
    if (remainder > 0) {
        sum += writeFrom(remainder);
    }
    return sum;
}
