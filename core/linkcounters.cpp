// SPDX-License-Identifier: MIT
#include "linkcounters.h"

namespace
{

template <class Counts, class Which>
auto& countOf(Counts& counts, Which which)
{
    return counts.at(static_cast<std::size_t>(which));
}

} // namespace

LinkCounters::LinkCounters() = default;
LinkCounters::~LinkCounters() = default;

void LinkCounters::onEvent(const LinkEvent& event)
{
    constexpr auto order = std::memory_order_relaxed;
    countOf(eventCounts, event.kind).fetch_add(1, order);
    countOf(byteCounts, event.kind).fetch_add(static_cast<quint64>(event.bytes.size()), order);
    if (event.kind == LinkEvent::Kind::Refused) {
        countOf(refusalCounts, event.check).fetch_add(1, order);
    }
}

quint64 LinkCounters::events(LinkEvent::Kind kind) const
{
    return countOf(eventCounts, kind).load(std::memory_order_relaxed);
}

quint64 LinkCounters::bytes(LinkEvent::Kind kind) const
{
    return countOf(byteCounts, kind).load(std::memory_order_relaxed);
}

quint64 LinkCounters::refusals(LinkEvent::Check check) const
{
    return countOf(refusalCounts, check).load(std::memory_order_relaxed);
}
