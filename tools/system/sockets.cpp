// SPDX-License-Identifier: MIT
#include "sockets.h"

#include "fileaccess.h"

#include <QFile>
#include <QNetworkProxy>
#include <QUdpSocket>

#include <cstdlib>
#include <filesystem>
#include <optional>
#include <set>

#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace
{

// TCP_ESTABLISHED of netinet/tcp.h, which does not go together with linux/tcp.h; only the latter
// counts bytes.
constexpr quint8 establishedState = 1;

// The kernel's table: "sl local_address rem_address st tx:rx tr:when retrnsmt uid timeout inode".
std::set<std::string> socketNames(quint16 port)
{
    constexpr int localAddressColumn = 1;
    constexpr int inodeColumn = 9;
    const QByteArray ending = ':' + QByteArray::number(port, 16).rightJustified(4, '0').toUpper();
    std::set<std::string> names;
    for (const char* table : {"/proc/net/udp", "/proc/net/udp6"}) {
        QFile file(QString::fromLatin1(table));
        if (!file.open(QIODevice::ReadOnly)) {
            continue;
        }
        for (const QByteArray& row : file.readAll().split('\n')) {
            const QList<QByteArray> words = row.simplified().split(' ');
            if (words.size() > inodeColumn && words.at(localAddressColumn).endsWith(ending)) {
                names.insert("socket:[" + words.at(inodeColumn).toStdString() + "]");
            }
        }
    }
    return names;
}

std::optional<sockets::Connection> connectionAt(int descriptor)
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
    sockets::Connection connection;
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

bool sockets::isFree(quint16 port)
{
    QUdpSocket probe;
    probe.setProxy(QNetworkProxy::NoProxy);
    return probe.bind(port);
}

QString sockets::holder(quint16 port)
{
    const auto names = socketNames(port);
    const QString holder =
        fileaccess::holder([&names](const std::string& name) { return names.count(name) != 0; });
    return holder.isEmpty() ? "another program" : holder;
}

std::vector<sockets::Connection> sockets::established()
{
    std::vector<Connection> connections;
    std::error_code error;
    for (const auto& file : std::filesystem::directory_iterator("/proc/self/fd", error)) {
        if (const auto found = connectionAt(std::atoi(file.path().filename().c_str()))) {
            connections.push_back(*found);
        }
    }
    return connections;
}
