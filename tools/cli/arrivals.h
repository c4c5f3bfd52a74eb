// SPDX-License-Identifier: MIT
#pragma once

#include "linkobserver.h"

#include <QByteArray>
#include <QString>

#include <chrono>
#include <mutex>
#include <utility>
#include <vector>

/// Keeps the bytes that come over a link, in the pieces in which they come, until they are taken.
class Arrivals : public LinkObserver
{
public:
    struct Piece {
        std::chrono::system_clock::time_point time;
        QString from; ///< the sender's address; empty: the link's one device
        QByteArray bytes;
    };

    void onEvent(const LinkEvent& event) override
    {
        if (event.kind == LinkEvent::Kind::Received) {
            const std::lock_guard guard(lock);
            pieces.push_back({event.time, event.peer, event.bytes});
        }
    }

    /// What has come since the last call, oldest first.
    std::vector<Piece> take()
    {
        const std::lock_guard guard(lock);
        return std::exchange(pieces, {});
    }

private:
    std::mutex lock; // a leaf
    std::vector<Piece> pieces;
};
