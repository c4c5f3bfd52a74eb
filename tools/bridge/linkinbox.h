// SPDX-License-Identifier: MIT
#pragma once

#include "linkcounters.h"
#include "model_osdparam.h"
#include "model_protocoldata.h"

#include <QHash>
#include <QObject>

#include <memory>
#include <mutex>
#include <variant>
#include <vector>

/// What happens on the links, told by their own threads, for the thread that owns this. Nothing
/// blocks.
class LinkInbox : public QObject
{
    Q_OBJECT

public:
    struct Item {
        std::size_t link;
        int opening; ///< which opening of the link, counted from its first
        LinkEvent::Kind kind;
        std::variant<std::monostate, model_Protocoldata, model_OsdParam> reply;
    };

    void put(Item item);      ///< any thread
    std::vector<Item> take(); ///< oldest first

Q_SIGNALS:
    void filled(); ///< in the owner's thread, once until it is taken

private:
    std::mutex lock; // a leaf
    std::vector<Item> items;
};

/// Tells an inbox what matters of one opening of a link, or of the links that share a transport,
/// and counts for each of them everything.
class LinkWatch : public LinkObserver
{
public:
    /// Where the counts of a link go, and which link it is.
    struct Link {
        std::size_t link;
        std::shared_ptr<LinkCounters> counters;
    };

    LinkWatch(std::shared_ptr<LinkInbox> to, int opening, Link only);
    LinkWatch(std::shared_ptr<LinkInbox> to, int opening, QHash<QString, Link> byPeer);

    void onEvent(const LinkEvent& event) override;

private:
    const std::shared_ptr<LinkInbox> inbox; // a link's thread may tell when the link is gone
    const int number;
    const Link one; // if there are no others
    const QHash<QString, Link> peers;
};
