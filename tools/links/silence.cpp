// SPDX-License-Identifier: MIT
#include "silence.h"

#include "fileaccess.h"
#include "linkwatchers.h"
#include "networkpath.h"

#include <utility>

#include <unistd.h>

namespace
{

constexpr int shownBytes = 16;
constexpr int shownRules = 3;
constexpr qint64 noiseIntervalMs = 1000;

void append(QByteArray& first, const QByteArray& bytes)
{
    first += bytes.left(shownBytes - first.size());
}

QString beginning(qint64 bytes, const QByteArray& first)
{
    return QString("%1%2").arg(QString::fromLatin1(first.toHex(' ')),
                               bytes > first.size() ? " ..." : "");
}

} // namespace

void Silence::Arrival::add(const LinkEvent& event)
{
    using Kind = LinkEvent::Kind;
    if (event.kind == Kind::Received) {
        bytes += event.bytes.size();
        append(first, event.bytes);
    } else if (event.kind == Kind::Skipped) {
        skipped += event.bytes.size();
        append(firstSkipped, event.bytes);
    }
    replies += event.kind == Kind::Reply ? 1 : 0;
    refusals += event.kind == Kind::Refused ? 1 : 0;
    opened = opened || event.kind == Kind::Opened;
    hungUp = hungUp || (opened && event.kind == Kind::Lost);
}

Silence::Silence(std::vector<LinkPlace> linkPlaces)
    : places(std::move(linkPlaces)), atStart(networkpath::counters())
{
    for (const LinkPlace& place : places) {
        arrivals[place.device] = {};
    }
    sinceNoise.start();
}

std::shared_ptr<Silence> Silence::watch(std::vector<LinkPlace> places)
{
    std::shared_ptr<Silence> silence(new Silence(std::move(places)));
    linkwatchers::add(silence);
    return silence;
}

void Silence::onEvent(const LinkEvent& event)
{
    const std::lock_guard guard(lock);
    arrivals[{}].add(event);
    if (!event.peer.isEmpty() && arrivals.contains(event.peer)) {
        arrivals[event.peer].add(event);
    }
    noise.add(event);
    if (event.kind == LinkEvent::Kind::Received) {
        sinceArrival.start();
    } else if (event.kind == LinkEvent::Kind::Reply || event.kind == LinkEvent::Kind::Refused) {
        noise.bytes = 0;
        noise.first.clear();
    }
}

QString Silence::speed() const
{
    const int baud = places.front().baud;
    return baud == 0 ? QString() : QString("; check the speed: %1?").arg(baud);
}

// What may be the beginning of a reply is no noise before the line has been quiet for a while. On
// other links each piece is refused by itself, or filled up.
QString Silence::takeNoise(bool last)
{
    const std::lock_guard guard(lock);
    const bool isPart = noise.skipped == 0;
    const bool maySay = sinceNoise.hasExpired(noiseIntervalMs) &&
                        (!isPart || sinceArrival.hasExpired(noiseIntervalMs));
    if (places.front().baud == 0 || noise.bytes + noise.skipped == 0 || !(maySay || last)) {
        return {};
    }
    sinceNoise.start();
    const Arrival taken = std::exchange(noise, {});
    const qint64 bytes = isPart ? taken.bytes : taken.skipped;
    return QString("noise: %1 bytes came that are no reply: %2%3")
        .arg(bytes)
        .arg(beginning(bytes, isPart ? taken.first : taken.firstSkipped), speed());
}

QString Silence::cause(const QString& device, const QString& before) const
{
    const Arrival came = [&] {
        const std::lock_guard guard(lock);
        return arrivals.value(device);
    }();
    if (came.hungUp) {
        return {};
    }
    QStringList causes;
    if (came.bytes > 0 && came.replies == 0 && (came.refusals == 0 || came.skipped > 0)) {
        causes << QString("%1 bytes came and none was a reply: %2%3")
                      .arg(came.bytes)
                      .arg(beginning(came.bytes, came.first), speed());
    }
    for (const LinkPlace& place : places) {
        if (device.isEmpty() || place.device == device) {
            causes << placeCauses(place, came.opened);
        }
    }
    if (causes.isEmpty() && came.bytes == 0) {
        causes << "nothing came";
    }
    causes.removeDuplicates();
    return causes.isEmpty() ? QString() : before + causes.join("; ");
}

QStringList Silence::placeCauses(const LinkPlace& place, bool opened) const
{
    if (place.isNetwork()) {
        const QHostAddress next = networkpath::nextHop(place.host);
        return networkpath::isWithoutArp(next)
                   ? QStringList(
                         QString("%1%2 does not answer ARP: is it on, and in this network?")
                             .arg(next == place.host ? "" : "the gateway ", next.toString()))
                   : counted(place, opened);
    }
    const QString holder = place.node.isEmpty() ? QString() : fileaccess::lineHolder(place.node);
    return holder.isEmpty()
               ? QStringList()
               : QStringList(
                     QString("%1 has %2 open as well and may take its bytes: end that first")
                         .arg(holder, place.node));
}

qint64 Silence::since(const char* counter, const QMap<QByteArray, qint64>& now) const
{
    return now.value(counter) - atStart.value(counter);
}

// The kernel counts for every program of this network namespace, so these are signs, not proofs.
QStringList Silence::counted(const LinkPlace& place, bool opened) const
{
    const auto now = networkpath::counters();
    const auto count = [&](const char* counter) { return since(counter, now); };
    QStringList signs;
    const auto tell = [&signs](qint64 number, const char* what, const QString& question = {}) {
        if (number > 0) {
            signs << QString(what) +
                         (number == 1 ? QString(" once") : QString(" %1 times").arg(number)) +
                         question;
        }
    };
    const QString isPort = QString(": is %1 its port?").arg(place.port);
    const qint64 unreachable = count("Icmp.InDestUnreachs");
    const qint64 misrouted = count("TcpExt.IPReversePathFilter");
    // What came in, less what ended elsewhere than in a program.
    const qint64 undelivered =
        count("Ip.InReceives") - count("Ip.InDelivers") - count("Ip.InHdrErrors") -
        count("Ip.InAddrErrors") - count("Ip.ForwDatagrams") - count("Ip.InUnknownProtos") -
        count("Ip.InDiscards") - misrouted - (count("Ip.ReasmReqds") - count("Ip.ReasmOKs"));
    tell(unreachable, "ICMP said unreachable", isPort);
    if (place.localPort == 0) {
        tell(opened ? 0 : count("Tcp.AttemptFails"), "a connection was refused", isPort);
    } else {
        // On this machine, ICMP tells of the same datagrams.
        tell(count("Udp.NoPorts") - unreachable, "a datagram came to a port that no program has",
             QString(": does it reply to port %1?").arg(place.localPort));
    }
    tell(misrouted, "a packet came in where the route to its sender does not go out, and the "
                    "reverse path filter dropped it");
    if (undelivered > 0) {
        tell(undelivered, "a packet came and no program got it",
             ": does a firewall here drop it?" + firewall(" "));
    }
    return signs;
}

QString Silence::firewall(const QString& before) const
{
    if (!places.front().isNetwork()) {
        return {};
    }
    if (geteuid() != 0) {
        return before + "its rules: sudo nft list ruleset";
    }
    const QStringList rules = networkpath::droppingRules();
    return rules.isEmpty() ? QString()
                           : before + "its rules: " + rules.mid(0, shownRules).join(", ");
}
