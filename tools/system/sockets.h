// SPDX-License-Identifier: MIT
#pragma once

#include <QHostAddress>

#include <vector>

/// UDP ports of this machine and TCP connections of this process, as the kernel shows them. Any
/// thread; nothing blocks.
namespace sockets
{

/// Whether the UDP port could be bound now, on every address.
bool isFree(quint16 port);

/// "process 123 (name)" of who has bound the UDP port, as far as this user may see it; else
/// "another program".
QString holder(quint16 port);

struct Connection {
    QHostAddress host; ///< IPv4 where it is one
    quint16 port = 0;
    bool hasSent = false; ///< bytes have been written to it
};

/// The TCP connections of this process that are established now, at either end.
std::vector<Connection> established();

} // namespace sockets
