// SPDX-License-Identifier: MIT
#include "linkinbox.h"

#include <utility>

void LinkInbox::put(Item item)
{
    bool isFirst = false;
    {
        const std::lock_guard guard(lock);
        isFirst = items.empty();
        items.push_back(std::move(item));
    }
    if (isFirst) {
        QMetaObject::invokeMethod(this, &LinkInbox::filled, Qt::QueuedConnection);
    }
}

std::vector<LinkInbox::Item> LinkInbox::take()
{
    const std::lock_guard guard(lock);
    return std::exchange(items, {});
}

LinkWatch::LinkWatch(std::shared_ptr<LinkInbox> to, int opening, Link only)
    : inbox(std::move(to)), number(opening), one(std::move(only))
{
}

LinkWatch::LinkWatch(std::shared_ptr<LinkInbox> to, int opening, QHash<QString, Link> byPeer)
    : inbox(std::move(to)), number(opening), one{}, peers(std::move(byPeer))
{
}

void LinkWatch::onEvent(const LinkEvent& event)
{
    using Kind = LinkEvent::Kind;
    const Link* of = &one;
    if (!one.counters) {
        const auto found = peers.constFind(event.peer);
        if (found == peers.constEnd()) {
            return; // of a stranger
        }
        of = &*found;
    }
    of->counters->onEvent(event);
    LinkInbox::Item item{of->link, number, event.kind, {}};
    if (event.kind == Kind::Reply && event.reply != nullptr) {
        item.reply = *event.reply;
    } else if (event.kind == Kind::Reply && event.acknowledgement != nullptr) {
        item.reply = *event.acknowledgement;
    } else if (event.kind != Kind::SendFailed && event.kind != Kind::Opened &&
               event.kind != Kind::Lost) {
        return;
    }
    inbox->put(std::move(item));
}
