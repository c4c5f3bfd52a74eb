// SPDX-License-Identifier: MIT
#pragma once

#include "linkobserver.h"

#include <array>
#include <atomic>

/// Counts what happens on the links that it watches, one or several. Any thread may read a count at
/// any time, without a lock; counts only grow, and two of them are not of one moment.
class CORE_MANAGE_EXPORT LinkCounters : public LinkObserver
{
public:
    LinkCounters();
    ~LinkCounters() override;

    void onEvent(const LinkEvent& event) override;

    quint64 events(LinkEvent::Kind kind) const;     ///< how many events of this kind
    quint64 bytes(LinkEvent::Kind kind) const;      ///< how many bytes they had together
    quint64 refusals(LinkEvent::Check check) const; ///< how often this check has failed

private:
    using Count = std::atomic<quint64>;

    std::array<Count, LinkEvent::kinds> eventCounts{};
    std::array<Count, LinkEvent::kinds> byteCounts{};
    std::array<Count, LinkEvent::checks> refusalCounts{};
};
