// SPDX-License-Identifier: MIT
#include "networkpath.h"

#include <QFile>
#include <QNetworkProxy>
#include <QProcess>
#include <QRegularExpression>
#include <QUdpSocket>
#include <QtEndian>

#include <unistd.h>

namespace
{

// The words of each line of a table of the kernel, without its heading.
QList<QByteArrayList> table(const char* path)
{
    QList<QByteArrayList> rows;
    QFile file(QString::fromLatin1(path));
    if (file.open(QIODevice::ReadOnly)) {
        for (const QByteArray& line : file.readAll().split('\n').mid(1)) {
            rows << line.simplified().split(' ');
        }
    }
    return rows;
}

// Numbers of the routing table: as the network has them, written as this machine's.
quint32 routed(const QByteArray& hexadecimal)
{
    return qFromBigEndian(hexadecimal.toUInt(nullptr, 16));
}

void connectTo(QUdpSocket& probe, const QHostAddress& host, quint16 port)
{
    probe.setProxy(QNetworkProxy::NoProxy);
    probe.connectToHost(host, port);
}

} // namespace

QString networkpath::obstacle(const QHostAddress& host, quint16 port)
{
    QUdpSocket probe;
    connectTo(probe, host, port);
    return probe.state() == QAbstractSocket::ConnectedState ? QString() : probe.errorString();
}

QNetworkInterface networkpath::interfaceTo(const QHostAddress& host, quint16 port)
{
    QUdpSocket probe;
    connectTo(probe, host, port);
    const QHostAddress own = probe.localAddress(); // the kernel has chosen it for this way
    if (own.isNull() || own == host || host.isLoopback()) {
        return {};
    }
    for (const QNetworkInterface& one : QNetworkInterface::allInterfaces()) {
        for (const QNetworkAddressEntry& entry : one.addressEntries()) {
            if (entry.ip() == own) {
                return one;
            }
        }
    }
    return {};
}

QHostAddress networkpath::nextHop(const QHostAddress& host)
{
    constexpr int destination = 1, gateway = 2, metric = 6, mask = 7; // columns
    const quint32 address = host.toIPv4Address();
    QHostAddress next = host;
    std::pair<quint32, qint64> best{0, std::numeric_limits<qint64>::min()}; // longest, then nearest
    for (const QByteArrayList& row : table("/proc/net/route")) {
        if (row.size() <= mask || (address & routed(row.at(mask))) != routed(row.at(destination))) {
            continue;
        }
        const std::pair<quint32, qint64> rank{routed(row.at(mask)), -row.at(metric).toLongLong()};
        if (rank > best) {
            best = rank;
            const quint32 via = routed(row.at(gateway));
            next = via == 0 ? host : QHostAddress(via);
        }
    }
    return next;
}

bool networkpath::isWithoutArp(const QHostAddress& neighbour)
{
    constexpr int address = 0, flags = 2; // columns; no flag: incomplete or failed
    const QByteArray wanted = neighbour.toString().toLatin1();
    for (const QByteArrayList& row : table("/proc/net/arp")) {
        if (row.size() > flags && row.at(address) == wanted) {
            return row.at(flags) == "0x0";
        }
    }
    return false;
}

QMap<QByteArray, qint64> networkpath::counters()
{
    QMap<QByteArray, qint64> counted;
    for (const char* path : {"/proc/net/snmp", "/proc/net/netstat"}) {
        QFile file(QString::fromLatin1(path));
        file.open(QIODevice::ReadOnly);
        const QByteArrayList lines = file.readAll().split('\n');
        for (int i = 0; i + 1 < lines.size(); i += 2) { // "Udp: NAME ...", "Udp: NUMBER ..."
            const QByteArrayList names = lines.at(i).split(' ');
            const QByteArrayList numbers = lines.at(i + 1).split(' ');
            const QByteArray protocol = names.first().chopped(1);
            for (int n = 1; n < qMin(names.size(), numbers.size()); ++n) {
                counted[protocol + '.' + names.at(n)] = numbers.at(n).toLongLong();
            }
        }
    }
    return counted;
}

QStringList networkpath::droppingRules()
{
    static const QRegularExpression drops("\\b(drop|reject)\\b",
                                          QRegularExpression::CaseInsensitiveOption);
    constexpr int patienceMs = 2000;
    QStringList rules;
    if (geteuid() != 0) {
        return rules;
    }
    for (const char* program : {"nft list ruleset", "iptables-legacy-save"}) {
        const QStringList words = QString::fromLatin1(program).split(' ');
        QProcess lister;
        lister.start(words.first(), words.mid(1));
        lister.waitForFinished(patienceMs);
        for (const QString& line :
             QString::fromLocal8Bit(lister.readAllStandardOutput()).split('\n')) {
            if (line.contains(drops) && !rules.contains(line.trimmed())) {
                rules << line.trimmed();
            }
        }
    }
    return rules;
}
