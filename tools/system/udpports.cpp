// SPDX-License-Identifier: MIT
#include "udpports.h"

#include "fileholder.h"

#include <QDir>
#include <QFile>
#include <QSet>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

quint16 boundPort(int descriptor)
{
    int type = 0;
    socklen_t length = sizeof type;
    if (getsockopt(descriptor, SOL_SOCKET, SO_TYPE, &type, &length) != 0 || type != SOCK_DGRAM) {
        return 0;
    }
    sockaddr_in6 address{}; // room for both families, which have the port at the same place
    length = sizeof address;
    if (getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &length) != 0 ||
        (address.sin6_family != AF_INET && address.sin6_family != AF_INET6)) {
        return 0;
    }
    return ntohs(address.sin6_port);
}

// The kernel's table: "sl local_address rem_address st tx:rx tr:when retrnsmt uid timeout inode".
QSet<QByteArray> socketLinks(quint16 port)
{
    constexpr int localAddressColumn = 1;
    constexpr int inodeColumn = 9;
    const QByteArray ending = ':' + QByteArray::number(port, 16).rightJustified(4, '0').toUpper();
    QSet<QByteArray> links;
    for (const char* table : {"/proc/net/udp", "/proc/net/udp6"}) {
        QFile file(QString::fromLatin1(table));
        if (!file.open(QIODevice::ReadOnly)) {
            continue;
        }
        for (const QByteArray& row : file.readAll().split('\n')) {
            const QList<QByteArray> words = row.simplified().split(' ');
            if (words.size() > inodeColumn && words.at(localAddressColumn).endsWith(ending)) {
                links.insert("socket:[" + words.at(inodeColumn) + "]");
            }
        }
    }
    return links;
}

} // namespace

bool udpports::isOurs(quint16 port)
{
    for (const QString& name :
         QDir(QStringLiteral("/proc/self/fd")).entryList(QDir::Files | QDir::System)) {
        if (boundPort(name.toInt()) == port) {
            return true;
        }
    }
    return false;
}

bool udpports::isFree(quint16 port)
{
    const int descriptor = socket(AF_INET6, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (descriptor < 0) {
        return socketLinks(port).isEmpty();
    }
    const int off = 0;
    setsockopt(descriptor, IPPROTO_IPV6, IPV6_V6ONLY, &off, sizeof off);
    sockaddr_in6 address{};
    address.sin6_family = AF_INET6;
    address.sin6_port = htons(port);
    const bool bound =
        bind(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    close(descriptor);
    return bound;
}

QString udpports::holder(quint16 port)
{
    const QSet<QByteArray> links = socketLinks(port);
    const QString holder =
        fileholder::find([&links](const QByteArray& name) { return links.contains(name); });
    return holder.isEmpty() ? QStringLiteral("another program") : holder;
}
