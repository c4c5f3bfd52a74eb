// SPDX-License-Identifier: MIT
#include "sockets.h"

#include "fileaccess.h"

#include <QFile>
#include <QNetworkProxy>
#include <QUdpSocket>

#include <algorithm>

namespace
{

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
    const QString holder = fileaccess::holder([&names](const std::set<std::string>& open) {
        return std::any_of(names.begin(), names.end(),
                           [&open](const std::string& name) { return open.count(name) != 0; });
    });
    return holder.isEmpty() ? "another program" : holder;
}
