// SPDX-License-Identifier: MIT
#pragma once

#include "eventually.h"
#include "linkobserver.h"
#include "model_osdparam.h"
#include "model_protocoldata.h"

#include <mutex>
#include <vector>

/// Keeps what an observed link tells. Any thread.
class EventLog : public LinkObserver
{
public:
    using Kind = LinkEvent::Kind;
    using Check = LinkEvent::Check;

    struct Entry {
        LinkEvent event; // without its pointers
        model_Protocoldata reply;
        model_OsdParam acknowledgement;
    };

    void onEvent(const LinkEvent& event) override
    {
        Entry entry;
        entry.event = event;
        if (event.reply != nullptr) {
            entry.reply = *event.reply;
        }
        if (event.acknowledgement != nullptr) {
            entry.acknowledgement = *event.acknowledgement;
        }
        entry.event.reply = nullptr;
        entry.event.acknowledgement = nullptr;
        const std::lock_guard guard(lock);
        entries.push_back(std::move(entry));
    }

    std::vector<Entry> all(Kind kind, Check check = Check::None) const
    {
        const std::lock_guard guard(lock);
        std::vector<Entry> found;
        for (const Entry& entry : entries) {
            if (entry.event.kind == kind && entry.event.check == check) {
                found.push_back(entry);
            }
        }
        return found;
    }

    QByteArray bytes(Kind kind, Check check = Check::None) const
    {
        QByteArray joined;
        for (const Entry& entry : all(kind, check)) {
            joined += entry.event.bytes;
        }
        return joined;
    }

    bool has(std::size_t count, Kind kind, Check check = Check::None) const
    {
        return eventually([&] { return all(kind, check).size() >= count; }) &&
               all(kind, check).size() == count;
    }

    bool hasBytes(const QByteArray& wanted, Kind kind, Check check = Check::None) const
    {
        return eventually([&] { return bytes(kind, check).size() >= wanted.size(); }) &&
               bytes(kind, check) == wanted;
    }

    std::size_t size() const
    {
        const std::lock_guard guard(lock);
        return entries.size();
    }

private:
    mutable std::mutex lock;
    std::vector<Entry> entries;
};
