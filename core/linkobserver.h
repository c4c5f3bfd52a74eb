// SPDX-License-Identifier: MIT
#pragma once

#include "core_manage_export.h"

#include <QByteArray>
#include <QString>

#include <chrono>
#include <memory>

class LinkTap;
class model_OsdParam;
class model_Protocoldata;

/// One thing that happened on a link. What does not apply is empty.
struct LinkEvent {
    /// What happened.
    enum class Kind : qint32 {
        Sent,       ///< bytes that the system has taken: a datagram, a report, a piece of a stream
        SendFailed, ///< bytes that the system has refused
        Received,   ///< bytes as they came: a datagram, a report, a piece of a stream
        Reply,      ///< a record was handed to the host's queue
        Refused,    ///< bytes that failed a check
        Skipped,    ///< bytes of a stream that belong to no reply
        Opened,     ///< the link works from now on; OSD: the endpoint is connected
        Closed,     ///< the host has closed it
        Lost,       ///< gone, or has refused; a serial line only where handleError is connected
        Reinitialised ///< UDP: a new socket has taken the place of the old one
    };
    static constexpr int kinds = 10; ///< how many there are

    /// Which check refused the bytes of Kind::Refused.
    enum class Check : qint32 {
        None,          ///< no check, of every other kind
        Length,        ///< a datagram that has not the length of a reply, and is no block
        Marks,         ///< a datagram that does not begin as a reply, and is no block
        Checksum,      ///< of a reply, or of a binary frame's head
        NoBlock,       ///< a datagram behind a reply that announces no block
        BlockLength,   ///< a block of another length than its reply announces
        BlockChecksum, ///< a block that ends with a wrong checksum
        BlockMissing   ///< a block that did not come; the bytes are those that came
    };
    static constexpr int checks = 8; ///< how many there are

    Kind kind = Kind::Sent;                          ///< what happened
    Check check = Check::None;                       ///< which check has failed
    QByteArray bytes;                                ///< of a Reply: an acknowledgement's only
    QString peer;                                    ///< address of the device or endpoint
    quint16 port = 0;                                ///< of that address
    const model_Protocoldata* reply = nullptr;       ///< of Reply, and of a block that was refused
    const model_OsdParam* acknowledgement = nullptr; ///< of Reply
    /// When it happened.
    std::chrono::system_clock::time_point time = std::chrono::system_clock::now();
};

/// Watches links: a host's or a tool's own class, which may watch any number of them.
class CORE_MANAGE_EXPORT LinkObserver
{
public:
    LinkObserver();
    virtual ~LinkObserver();
    LinkObserver(const LinkObserver&) = delete;
    LinkObserver& operator=(const LinkObserver&) = delete;

    /// Called for each event on the thread where it happens, so by several threads at a time, and
    /// under no lock. What happens to an OSD endpoint is told by its parser's thread, up to 20 ms
    /// later and in order; its time is exact all the same. Must not block, throw, or use the link.
    /// The records that \a event points to exist during the call.
    virtual void onEvent(const LinkEvent& event) = 0;
};

/// A link that can be watched: a base of ICoreBase, ICoreOsdBase and Core_Osd_TcpSocket. A link
/// that nobody watches pays one relaxed load for each event.
class CORE_MANAGE_EXPORT ObservableLink
{
public:
    ObservableLink(const ObservableLink&) = delete;
    ObservableLink& operator=(const ObservableLink&) = delete;

    /// Tells \a observer what happens from now on; null is ignored. The observers of a manager are
    /// told of all its endpoints. Any thread; does not block.
    void addObserver(std::shared_ptr<LinkObserver> observer);

    /// Ends that. A call that is under way on another thread may outlast this one, and the links
    /// share ownership of the observer until then. Any thread; does not block.
    void removeObserver(const std::shared_ptr<LinkObserver>& observer);

protected:
    ObservableLink();
    ~ObservableLink();

    std::shared_ptr<LinkTap> tap; ///< never null; shared with the threads of the link
};
