// SPDX-License-Identifier: MIT
#pragma once

#include "udpsocket.h"

#include <QByteArray>
#include <QHostAddress>
#include <QObject>
#include <QString>

#include <atomic>
#include <memory>
#include <mutex>

/// How one frame went out.
enum class SendOutcome { Successful, Failed, BroadcastFailed, Unknown };

/// Where a core_UDP sends to and through: everything that its sending threads need, so that they
/// never touch the transport itself, which may be rebuilding its socket or be gone.
///
/// Any thread may use it. No lock is held while a datagram is written, while host code runs, or
/// while another lock is taken.
class UdpLink : public QObject, public std::enable_shared_from_this<UdpLink>
{
    Q_OBJECT

public:
    /// Opens a socket that datagrams go through from now on, and returns it. Without a descriptor,
    /// or a thread for what the host may keep waiting, the next send tries again to open it; a
    /// thread that is refused is noted in the log.
    std::shared_ptr<UdpSocket> attach(quint16 localPort);

    /// Closes the socket. Until the next attach, which must follow at once, sends wait, also
    /// between two datagrams of a frame: they are not to fail because the socket is being rebuilt.
    void detach();

    /// Closes the socket for good.
    void abandon();

    void setDeviceIP(const QString& ip);
    void setPort(int port) { nPort.store(port, std::memory_order_relaxed); }

    /// Sends a frame in datagrams of at most 540 bytes to the device and reports the outcome in the
    /// debug log and, when successful, the log.
    SendOutcome sendUnicast(const QByteArray& frame);

    /// Sends a frame as one datagram to 255.255.255.255, reported alike.
    SendOutcome sendBroadcast(const QByteArray& frame);

    /// sendUnicast if the device's address is exactly \a ip, else false. The outcome is reported on
    /// another thread, and there unknownSent is emitted if it is unknown.
    bool sendTo(const QString& ip, const QByteArray& frame);

    /// Has \a text, which must live for ever, written as a debug line and to the log, by another
    /// thread.
    static void reportFailure(const char* text);

    /// Whether what waits for the host's log has reached its bound: then nothing more is to be
    /// read.
    static bool isBehind();

Q_SIGNALS:
    void opened();      ///< a send has opened the socket, which may be read from now on
    void unknownSent(); ///< a frame of sendTo went wrong in an unknown way

private:
    struct Destination {
        QHostAddress address;
        quint16 port = 0;
    };

    quint16 port() const;
    std::shared_ptr<UdpSocket> socketNow() const;
    std::shared_ptr<UdpSocket> exchange(std::shared_ptr<UdpSocket> next, bool rebuild);
    SendOutcome send(const QByteArray& frame, const Destination& to);
    qint64 write(const char* data, int size, const Destination& to);

    // Each a leaf.
    mutable std::mutex destinationLock; // strDeviceIP, deviceAddress
    mutable std::mutex socketLock;      // socket, rebuilding

    QString strDeviceIP;
    QHostAddress deviceAddress; // strDeviceIP parsed
    std::atomic<int> nPort{0};
    std::shared_ptr<UdpSocket> socket; // null while there is none
    bool rebuilding = false;           // an attach follows at once
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
