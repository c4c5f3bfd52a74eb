// SPDX-License-Identifier: MIT
#pragma once

#include "replystream.h"

/// How replies are found on a stream, decoded and handed on: what differs between the links behind
/// ReplyStreamParser's operations of these names. Stateless, and made at compile time, so that a
/// parser may use it for ever.
class ReplyFormat
{
public:
    virtual bool isFindStdCmdPreFlag(ReplyStream& stream, const QByteArray& data) const = 0;
    virtual bool checkCMD(ReplyStream& stream, const QByteArray& data) const = 0;
    virtual bool checkBlock(ReplyStream& stream, model_Protocoldata record,
                            quint16 length) const = 0;

    /// Decodes the first headLength bytes of \a frame into a default-constructed record.
    virtual bool decode(const QByteArray& frame, model_Protocoldata& record) const = 0;

    /// Whether checkCMD is to be called; \a head, of headLength bytes or more, begins with a mark.
    virtual bool isReply(const QByteArray& head) const = 0;

    const std::chrono::milliseconds interval; ///< the pause before each pass
    const int headLength;                     ///< bytes of a reply without its block

protected:
    constexpr ReplyFormat(std::chrono::milliseconds pauseBetweenPasses, int length)
        : interval(pauseBetweenPasses), headLength(length)
    {
    }
    ~ReplyFormat() = default;
};
