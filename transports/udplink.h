// SPDX-License-Identifier: MIT
#pragma once

#include "linktap.h"
#include "udpsocket.h"

#include <QByteArray>
#include <QHostAddress>
#include <QObject>
#include <QString>

#include <memory>
#include <mutex>
#include <optional>

/// How one frame went out.
enum class SendOutcome { Successful, Failed, BroadcastFailed, Unknown };

/// Where a core_UDP sends to and through: everything that its sending threads need, so that they
/// never touch the transport itself, which may be gone.
///
/// Unless stated otherwise any thread may call any operation; none blocks, except in the host's
/// log, which is called without the lock.
class UdpLink : public QObject, public std::enable_shared_from_this<UdpLink>
{
    Q_OBJECT

public:
    /// \a watched is told of what is sent and of the state of the socket.
    explicit UdpLink(std::shared_ptr<const LinkTap> watched);

    /// Closes the socket, if any, opens one on \a localPort and sets the device port. Sends wait
    /// for that, also between two datagrams of a frame. Without a descriptor, or a thread for what
    /// the host may keep waiting, the next send tries again; a refused thread is noted in the log.
    /// Reading thread.
    void rebuild(quint16 localPort, int devicePort);

    /// Closes the socket for good. Reading thread.
    void close();

    /// UdpSocket::readable and UdpSocket::read. Reading thread.
    int readable() const { return udpSocket.readable(); }
    bool read(QByteArray& datagram, QHostAddress& sender, quint16& port)
    {
        return udpSocket.read(datagram, sender, port);
    }

    void setDeviceIP(const QString& ip);
    void setPort(int port);

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

    /// Whether 65,536 lines wait for the host's log: then nothing more is to be read.
    static bool isBehind();

Q_SIGNALS:
    void opened();      ///< a send has opened the socket, which may be read from now on
    void unknownSent(); ///< a frame of sendTo went wrong in an unknown way

private:
    struct Destination {
        QString text; // strDeviceIP
        QHostAddress address;
        quint16 port = 0;
    };

    Destination destination() const;
    bool open();
    SendOutcome send(const QByteArray& frame, const Destination& to);
    qint64 write(const char* data, qint64 size, const Destination& to);

    const std::shared_ptr<const LinkTap> tap;
    mutable std::mutex lock; // everything below; held while a datagram is sent, which never blocks
    Destination device;
    UdpSocket udpSocket;
    std::optional<quint16> localPort; // while the socket is open or is to be opened
};

/// The size of a datagram's share of a frame, in bytes.
constexpr int udpPieceSize = 540;

/// Which outcome a sum of write results stands for, given the frame's size.
SendOutcome classifySent(qint64 sum, qint64 frameSize);

/// Sends a frame in pieces through \a write, a callable (const char*, size) -> qint64, and returns
/// the 32-bit sum of its results. A piece that fails ends the pieces; one last write of what was
/// not counted as sent follows, taken from the index that the sum gives, as QByteArray::mid takes
/// it.
template <class Write>
qint32 sendInPieces(const QByteArray& frame, Write&& write)
{
    using Size = QByteArray::size_type;
    qint32 sum = 0;
    Size remainder = frame.size();
    const auto writeFrom = [&](Size size) {
        Size index = sum;
        if (index < 0) { // mid: what lies before the frame is cut off the length
            size = size + index >= frame.size() ? frame.size() : size + index;
            index = 0;
        }
        index = qMin(index, frame.size());
        size = qBound(Size{0}, size, frame.size() - index);
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
