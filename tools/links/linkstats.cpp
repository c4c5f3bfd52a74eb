// SPDX-License-Identifier: MIT
#include "linkstats.h"

#include "devicelink.h"
#include "linkplace.h"
#include "linkwatchers.h"

#include <QDateTime>

#include <algorithm>

namespace
{

constexpr double interval = 1.0; // seconds
constexpr double perMillisecond = 0.001;

} // namespace

QString LinkStats::Row::text() const
{
    return QString("%1: %2 replies/s (%3 in %4 s), %5 skipped bytes, %6 checksum errors, "
                   "%7 late blocks, queue %8")
        .arg(link)
        .arg(static_cast<double>(replies) / seconds, 0, 'f', 1)
        .arg(replies)
        .arg(seconds, 0, 'f', 1)
        .arg(skippedBytes)
        .arg(checksumErrors)
        .arg(lateBlocks)
        .arg(queueDepth);
}

QJsonObject LinkStats::Row::json() const
{
    const auto number = [](quint64 count) { return static_cast<qint64>(count); };
    return {{"time", QDateTime::currentDateTime().toString(Qt::ISODateWithMs)},
            {"link", link},
            {"seconds", seconds},
            {"replies", number(replies)},
            {"replies_per_second", static_cast<double>(replies) / seconds},
            {"skipped_bytes", number(skippedBytes)},
            {"checksum_errors", number(checksumErrors)},
            {"late_blocks", number(lateBlocks)},
            {"queue_depth", number(queueDepth)}};
}

LinkStats::Row LinkStats::Device::total(double seconds) const
{
    using Kind = LinkEvent::Kind;
    using Check = LinkEvent::Check;
    return {link,
            seconds,
            counters.events(Kind::Reply),
            counters.bytes(Kind::Skipped),
            counters.refusals(Check::Checksum) + counters.refusals(Check::BlockChecksum),
            counters.refusals(Check::BlockMissing),
            mostDepth};
}

std::shared_ptr<LinkStats> LinkStats::watch(const QString& link,
                                            const std::vector<LinkPlace>& places)
{
    std::shared_ptr<LinkStats> stats(new LinkStats);
    for (const LinkPlace& place : places) {
        stats->devices[place.device].link =
            place.device.isEmpty() ? link
                                   : QString("osd://%1:%2").arg(place.device).arg(place.port);
    }
    stats->clock.start();
    linkwatchers::add(stats);
    return stats;
}

// A link with one device counts what anyone sends.
LinkStats::Device& LinkStats::deviceOf(const QString& name)
{
    const auto found = devices.find(name);
    return found == devices.end() ? devices.begin()->second : found->second;
}

void LinkStats::onEvent(const LinkEvent& event)
{
    deviceOf(event.peer).counters.onEvent(event);
}

void LinkStats::taken(const std::vector<Reply>& replies)
{
    std::map<Device*, quint64> depths;
    for (const Reply& reply : replies) {
        Device& device = deviceOf(reply.from);
        device.depth = std::max(device.depth, ++depths[&device]);
        device.mostDepth = std::max(device.mostDepth, device.depth);
    }
}

std::vector<LinkStats::Row> LinkStats::takeRows()
{
    const double now = static_cast<double>(clock.elapsed()) * perMillisecond;
    std::vector<Row> rows;
    for (auto& [name, device] : devices) {
        if (now - device.last.seconds < interval) {
            continue;
        }
        const Row total = device.total(now);
        const Row& last = device.last;
        rows.push_back({total.link, now - last.seconds, total.replies - last.replies,
                        total.skippedBytes - last.skippedBytes,
                        total.checksumErrors - last.checksumErrors,
                        total.lateBlocks - last.lateBlocks, std::exchange(device.depth, 0)});
        device.last = total;
    }
    return rows;
}

std::vector<LinkStats::Row> LinkStats::totals() const
{
    const double now = static_cast<double>(std::max<qint64>(clock.elapsed(), 1)) * perMillisecond;
    std::vector<Row> rows;
    for (const auto& [name, device] : devices) {
        rows.push_back(device.total(now));
    }
    return rows;
}
