// SPDX-License-Identifier: MIT
#pragma once

#include <QHostAddress>
#include <QMap>
#include <QNetworkInterface>
#include <QStringList>

/// How this machine reaches an IPv4 address, as the kernel shows it. Nothing is sent. Any thread.
namespace networkpath
{

/// Why datagrams cannot go there now, in the system's words; empty if they can.
QString obstacle(const QHostAddress& host, quint16 port);

/// The interface that they go out through; invalid if they cannot, or go to this machine itself.
QNetworkInterface interfaceTo(const QHostAddress& host, quint16 port);

/// Who has to answer ARP for the address: the gateway of its route, or it itself.
QHostAddress nextHop(const QHostAddress& host);

/// Whether the kernel has asked for the hardware address of a neighbour without an answer, now or
/// in the last minute or so.
bool isWithoutArp(const QHostAddress& neighbour);

/// The counters of this network namespace: "Udp.NoPorts" and the like.
QMap<QByteArray, qint64> counters();

/// Firewall rules that drop or reject, as nft and iptables list them to root; empty for others,
/// and where there are none. Starts these programs and waits for each up to 2 s.
QStringList droppingRules();

} // namespace networkpath
