// SPDX-License-Identifier: MIT
#pragma once

#include "devicetypes.h"
#include "linktap.h"
#include "model_protocoldata.h"
#include "receivebuffer.h"
#include "runtoken.h"

#include <QByteArray>
#include <QString>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>

/// What a link shares with its parser's thread: the bytes that were received, the token that stops
/// the thread, and what replies are stamped with. The thread touches nothing else. A link that does
/// not wait for its parser leaves it the stream and goes on with another one.
///
/// Any thread may append, use the token and the stamps. The operations that consume are for the
/// parsing thread, or for any one thread while there is none.
class ReplyStream
{
public:
    explicit ReplyStream(std::shared_ptr<const LinkTap> watched = std::make_shared<LinkTap>());
    virtual ~ReplyStream();
    ReplyStream(const ReplyStream&) = delete;
    ReplyStream& operator=(const ReplyStream&) = delete;

    /// An empty stream with the same stamps and observers.
    std::shared_ptr<ReplyStream> successor() const;

    /// Drops the first \a count bytes, which belong to no reply.
    void skip(ReceiveBuffer::Size count);

    /// Drops the \a index bytes before a start mark, or, where \a index is -1, the \a inspected
    /// bytes that hold none; both modulo 65536. True if there is a mark.
    bool skipTo(ReceiveBuffer::Size index, ReceiveBuffer::Size inspected);

    /// Takes the block of \a length bytes that follows \a reply off the buffer, looking for it 150
    /// times with a pause of 4 ms behind each miss. False if it does not come, which consumes
    /// nothing, or if its last byte is not the sum of the others modulo 256. A block of 0 bytes is
    /// there and intact.
    bool takeBlock(const model_Protocoldata& reply, quint16 length, QByteArray& block);

    /// Blocks for \a duration. The parser pauses nowhere else, and waits nowhere else but in the
    /// host's code (its locks, log and message handler).
    void pause(std::chrono::milliseconds duration);

    void setOriginType(model_GlobalEnum::DeviceType type);
    void setOriginName(const QString& name); ///< of the port that the bytes come from
    QString originName() const;

    /// Sets the origin mark and the device type of a reply.
    void stamp(model_Protocoldata& record, quint8 mark) const;

    const std::shared_ptr<const LinkTap> tap; ///< never null
    ReceiveBuffer received;
    RunToken token;                    ///< of the parser
    std::atomic<bool> isPausing{true}; ///< the parser pauses, or has not begun to work

private:
    virtual void sleep(std::chrono::milliseconds duration);

    std::atomic<model_GlobalEnum::DeviceType> deviceType{devicetypes::unset};
    mutable std::mutex nameLock; // a leaf: name
    QString name;
};
