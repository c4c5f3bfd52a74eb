// SPDX-License-Identifier: MIT
#include "examination.h"

#include "fileaccess.h"
#include "hidnode.h"
#include "networkpath.h"
#include "sockets.h"

#include <QFileInfo>
#include <QSerialPortInfo>

#include <algorithm>

#include <unistd.h>

namespace
{

using State = Finding::State;
using Findings = std::vector<Finding>;

const QString modemManager = QStringLiteral("ModemManager");

Finding access(const QString& node, const QString& rule)
{
    const QString refusal = fileaccess::refusal(node);
    if (refusal.isEmpty()) {
        return {State::Fine, node + " may be opened", {}};
    }
    const QString byRule =
        rule.isEmpty() ? QString("sudo chmod o+rw %1, until it is plugged in again").arg(node)
                       : QString("%1\n%2").arg(fileaccess::ruleAdvice(), rule);
    const QString byGroup = fileaccess::remedy(node);
    return {State::Wrong, node + ": " + refusal,
            byGroup.isEmpty() ? byRule : byGroup + (rule.isEmpty() ? "" : "\nor " + byRule)};
}

// Of the USB device that a serial port belongs to; empty if it belongs to none.
QString portRule(const QString& node, const QString& effect)
{
    const QSerialPortInfo port(fileaccess::linked(node).section('/', -1));
    return port.hasVendorIdentifier() && port.hasProductIdentifier()
               ? QString(
                     "SUBSYSTEM==\"tty\", ATTRS{idVendor}==\"%1\", ATTRS{idProduct}==\"%2\", %3")
                     .arg(port.vendorIdentifier(), 4, 16, QChar('0'))
                     .arg(port.productIdentifier(), 4, 16, QChar('0'))
                     .arg(effect)
               : QString();
}

// It opens each port that is plugged in and sends what modems understand.
Finding modemManagerOf(const QString& node, const QString& holder)
{
    const QString process = fileaccess::running(modemManager);
    const bool hasIt = holder.contains(modemManager);
    const QString rule = portRule(node, "ENV{ID_MM_PORT_IGNORE}=\"1\"");
    if (!hasIt && (process.isEmpty() || rule.isEmpty())) {
        return {State::Fine, "ModemManager does not probe it", {}};
    }
    return {hasIt ? State::Wrong : State::Note,
            QString("%1 %2").arg(hasIt ? holder : process,
                                 hasIt ? "has " + node + " and probes it for a modem"
                                       : "probes it for a modem when it is plugged in"),
            "sudo systemctl stop ModemManager" +
                (rule.isEmpty()
                     ? QString()
                     : QString(", or for good: %1\n%2").arg(fileaccess::ruleAdvice(), rule))};
}

Findings serial(const LinkPlace& place)
{
    if (!QFileInfo::exists(place.node)) {
        return {{State::Wrong, QString("there is no %1").arg(place.node),
                 "plug it in; coremanage ports lists what there is"}};
    }
    const QString holder = fileaccess::lineHolder(place.node);
    Findings found{access(place.node, portRule(place.node, "TAG+=\"uaccess\"")),
                   modemManagerOf(place.node, holder)};
    if (holder.isEmpty()) {
        const bool seesAll = geteuid() == 0;
        found.push_back({seesAll ? State::Fine : State::Note,
                         seesAll ? "no other program has it"
                                 : "no program of this user has it; of others, only root can see",
                         {}});
    } else if (!holder.contains(modemManager)) {
        found.push_back({State::Wrong, QString("%1 has %2").arg(holder, place.node),
                         QString("end it: kill %1").arg(holder.section(' ', 1, 1))});
    }
    return found;
}

Findings usb(const LinkPlace& place)
{
    Findings found;
    for (const HidNode& node : HidNode::with(place.vendorId, place.productId)) {
        found.push_back(access(node.path, node.rule()));
        const QString holder = fileaccess::lineHolder(node.path);
        if (!holder.isEmpty()) {
            found.push_back(
                {State::Note,
                 QString("%1 has %2 open as well: both get every report").arg(holder, node.path),
                 {}});
        }
    }
    if (found.empty()) {
        found.push_back({State::Wrong, "there is no such device",
                         "plug it in; coremanage devices lists what there is"});
    }
    return found;
}

// What would make a way there, as far as the interfaces tell.
QString wayThere(const LinkPlace& place)
{
    QStringList advice;
    for (const QNetworkInterface& one : QNetworkInterface::allInterfaces()) {
        const bool isLoopback = one.flags().testFlag(QNetworkInterface::IsLoopBack);
        if (isLoopback != place.host.isLoopback()) {
            continue;
        }
        advice << (one.flags().testFlag(QNetworkInterface::IsUp)
                       ? QString("sudo ip addr add ADDRESS/24 dev %1, with a free address of the "
                                 "device's network")
                       : QString("sudo ip link set %1 up"))
                      .arg(one.name());
    }
    return advice.isEmpty() ? "plug the network adapter in" : advice.join("\nor ");
}

Finding interfaceOf(const LinkPlace& place)
{
    const QNetworkInterface out = networkpath::interfaceTo(place.host, place.port);
    const QHostAddress next = networkpath::nextHop(place.host);
    const QString name = out.name();
    if (!out.isValid()) {
        return {State::Fine, "it is on this machine", {}};
    }
    if (!out.flags().testFlag(QNetworkInterface::IsRunning)) {
        return {State::Wrong, QString("%1 has no link").arg(name),
                "plug the cable in, switch the other end on"};
    }
    return {State::Fine,
            next == place.host ? QString("%1 leads to it").arg(name)
                               : QString("%1 leads to it, through %2").arg(name, next.toString()),
            {}};
}

Findings network(const LinkPlace& place)
{
    const QString obstacle = networkpath::obstacle(place.host, place.port);
    if (!obstacle.isEmpty()) {
        return {{State::Wrong, QString("no way to %1: %2").arg(place.host.toString(), obstacle),
                 wayThere(place)}};
    }
    Findings found{interfaceOf(place)};
    const QHostAddress next = networkpath::nextHop(place.host);
    if (networkpath::isWithoutArp(next)) {
        found.push_back({State::Wrong,
                         QString("%1 has not answered ARP lately").arg(next.toString()),
                         "switch it on; check its address and the cable"});
    }
    if (place.localPort != 0) {
        const bool isFree = sockets::isFree(place.localPort);
        found.push_back({isFree ? State::Fine : State::Wrong,
                         QString("local port %1, for replies: %2")
                             .arg(place.localPort)
                             .arg(isFree ? "free" : sockets::holder(place.localPort) + " has it"),
                         isFree ? QString() : QString("end that program")});
    }
    const QStringList rules = networkpath::droppingRules();
    if (geteuid() != 0) {
        found.push_back({State::Note, "what a firewall here drops, only root can see",
                         "sudo nft list ruleset"});
    } else if (rules.isEmpty()) {
        found.push_back({State::Fine, "no firewall rule here drops anything", {}});
    } else {
        const QString port = place.localPort != 0 ? QString("udp dport %1").arg(place.localPort)
                                                  : QString("tcp sport %1").arg(place.port);
        found.push_back({State::Note, "a firewall here drops: " + rules.join(", "),
                         QString("if replies are among that: sudo nft insert rule inet filter "
                                 "input %1 accept, in the table and chain that it has")
                             .arg(port)});
    }
    return found;
}

} // namespace

std::vector<Finding> examination::of(const LinkPlace& place)
{
    return place.isNetwork() ? network(place) : place.node.isEmpty() ? usb(place) : serial(place);
}
