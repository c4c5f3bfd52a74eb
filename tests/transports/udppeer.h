// SPDX-License-Identifier: MIT
#pragma once

#include "eventually.h"
#include "replybytes.h"

#include <QByteArray>
#include <QHostAddress>
#include <QLoggingCategory>
#include <QUdpSocket>
#include <QVariant>

/// The device's side of a UDP link, played by the test: a real socket on loopback.
class UdpPeer
{
public:
    struct Datagram {
        QByteArray bytes;
        QHostAddress from;
        quint16 port = 0;
    };

    static constexpr quint16 linkPort = 5104; ///< the link's fixed local port

    explicit UdpPeer(const QString& address = QStringLiteral("127.0.0.1"), quint16 port = 0)
    {
        socket.bind(QHostAddress(address), port);
        socket.setSocketOption(QAbstractSocket::ReceiveBufferSizeSocketOption,
                               QVariant(4 * 1024 * 1024));
    }

    quint16 port() const { return socket.localPort(); }
    bool bound() const { return socket.state() == QAbstractSocket::BoundState; }

    void send(const QByteArray& bytes, quint16 to = linkPort)
    {
        socket.writeDatagram(bytes, QHostAddress(QHostAddress::LocalHost), to);
    }

    /// The next datagram; one with a null sender if none comes.
    Datagram receive()
    {
        Datagram datagram;
        if (eventually([this] { return socket.hasPendingDatagrams(); })) {
            datagram.bytes.resize(static_cast<int>(socket.pendingDatagramSize()));
            socket.readDatagram(datagram.bytes.data(), datagram.bytes.size(), &datagram.from,
                                &datagram.port);
        }
        return datagram;
    }

    /// Whether something is there now. Loopback delivers before a send returns.
    bool hasDatagram() const { return socket.hasPendingDatagrams(); }

private:
    QUdpSocket socket;
};

inline QByteArray replyText(int command, int subCode, int low = 0, int high = 0, int address = 1)
{
    return replybytes::text(command, subCode, low, high, address);
}
