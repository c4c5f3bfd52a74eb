// SPDX-License-Identifier: MIT
#pragma once

#include <QHostAddress>

#include <vector>

/// The TCP connections of this process, as the kernel tells it.
namespace tcpconnections
{

struct Connection {
    QHostAddress host; ///< IPv4 where it is one
    quint16 port = 0;
    bool hasSent = false; ///< bytes have been written to it
};

/// Those that are established now, at either end. Any thread.
std::vector<Connection> established();

} // namespace tcpconnections
