// SPDX-License-Identifier: MIT
#pragma once

#include "linkcounters.h"

#include <QElapsedTimer>
#include <QJsonObject>
#include <QString>

#include <map>
#include <memory>
#include <vector>

struct LinkPlace;
struct Reply;

/// What passes over a link, with rates: for each of its devices, if they have names.
class LinkStats : public LinkObserver
{
public:
    /// What passed over one link in a time, or since the beginning.
    struct Row {
        QString link;
        double seconds;
        quint64 replies;
        quint64 skippedBytes;   ///< that belong to no reply
        quint64 checksumErrors; ///< replies and blocks with a wrong checksum
        quint64 lateBlocks;     ///< that did not come in time
        quint64 queueDepth;     ///< most replies that waited in the host's queue at once

        QString text() const;
        QJsonObject json() const;
    };

    /// Watches the link, written so, that is opened next. Each device of \a places has a row.
    static std::shared_ptr<LinkStats> watch(const QString& link,
                                            const std::vector<LinkPlace>& places);

    void onEvent(const LinkEvent& event) override; ///< any thread

    /// What was in the queue. One thread, as the following.
    void taken(const std::vector<Reply>& replies);

    /// A second after the last rows or later, what has passed since; empty before.
    std::vector<Row> takeRows();

    std::vector<Row> totals() const; ///< since the beginning

private:
    struct Device {
        QString link;
        LinkCounters counters;
        quint64 depth = 0;     // since the last rows
        quint64 mostDepth = 0; // of all
        Row last{};            // totals, as of the last rows

        Row total(double seconds) const;
    };

    LinkStats() = default;
    Device& deviceOf(const QString& name);

    std::map<QString, Device> devices; // by name; the same from the beginning on
    QElapsedTimer clock;
};
