// SPDX-License-Identifier: MIT
#include "tcpconnections.h"

#include <cstdlib>
#include <memory>
#include <optional>

#include <dirent.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace
{

// TCP_ESTABLISHED of netinet/tcp.h, which does not go together with linux/tcp.h; only the latter
// counts bytes.
constexpr quint8 establishedState = 1;

std::optional<tcpconnections::Connection> connectionAt(int descriptor)
{
    sockaddr_storage peer{};
    socklen_t length = sizeof peer;
    if (getpeername(descriptor, reinterpret_cast<sockaddr*>(&peer), &length) != 0 ||
        (peer.ss_family != AF_INET && peer.ss_family != AF_INET6)) {
        return std::nullopt;
    }
    tcp_info info{};
    length = sizeof info;
    if (getsockopt(descriptor, IPPROTO_TCP, TCP_INFO, &info, &length) != 0 ||
        info.tcpi_state != establishedState) {
        return std::nullopt;
    }
    tcpconnections::Connection connection;
    const QHostAddress host(reinterpret_cast<const sockaddr*>(&peer));
    bool isIPv4 = false;
    const quint32 ipv4 = host.toIPv4Address(&isIPv4);
    connection.host = isIPv4 ? QHostAddress(ipv4) : host;
    // both families have the port at the same place
    connection.port = ntohs(reinterpret_cast<const sockaddr_in&>(peer).sin_port);
    connection.hasSent = info.tcpi_bytes_sent > 0 || info.tcpi_notsent_bytes > 0;
    return connection;
}

} // namespace

std::vector<tcpconnections::Connection> tcpconnections::established()
{
    std::vector<Connection> connections;
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(opendir("/proc/self/fd"), closedir);
    while (const dirent* entry = directory ? readdir(directory.get()) : nullptr) {
        if (const auto connection = connectionAt(std::atoi(entry->d_name))) {
            connections.push_back(*connection);
        }
    }
    return connections;
}
