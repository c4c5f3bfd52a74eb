// SPDX-License-Identifier: MIT
#pragma once

#include "eventually.h"

#include <QHostAddress>
#include <QTcpServer>
#include <QTcpSocket>

#include <algorithm>
#include <memory>
#include <vector>

/// An on-screen-display endpoint that a test plays: a TCP server that does nothing by itself.
class OsdPeer
{
public:
    explicit OsdPeer(const char* address) : ip(QLatin1String(address))
    {
        server.listen(QHostAddress(ip));
        number = server.serverPort();
        QObject::connect(&server, &QTcpServer::newConnection, &server, [this] {
            while (server.hasPendingConnections()) {
                connections.emplace_back(server.nextPendingConnection());
            }
        });
    }

    QString link() const { return QStringLiteral("osd://%1:%2").arg(ip).arg(number); }
    quint16 port() const { return number; }

    /// Waits for the first \a size bytes on the latest connection and takes them.
    QByteArray receive(qint64 size)
    {
        const bool came = eventually(
            [&] { return !connections.empty() && connections.back()->bytesAvailable() >= size; });
        return came ? connections.back()->read(size) : QByteArray();
    }

    /// What is there to receive on the latest connection.
    qint64 bytesThere() const
    {
        return connections.empty() ? 0 : connections.back()->bytesAvailable();
    }

    bool hasBytes() const
    {
        return std::any_of(connections.begin(), connections.end(),
                           [](const auto& one) { return one->bytesAvailable() > 0; });
    }

    bool isConnected() const
    {
        return std::any_of(connections.begin(), connections.end(), [](const auto& one) {
            return one->state() == QTcpSocket::ConnectedState;
        });
    }

    void answer(const QByteArray& bytes)
    {
        connections.back()->write(bytes);
        connections.back()->flush();
    }

    void hangUp() { connections.back()->disconnectFromHost(); }
    void refuse() { server.close(); }                         ///< connections, from now on
    void serve() { server.listen(QHostAddress(ip), number); } ///< at the same port again

private:
    QString ip;
    quint16 number;
    QTcpServer server;
    std::vector<std::unique_ptr<QTcpSocket>> connections;
};
