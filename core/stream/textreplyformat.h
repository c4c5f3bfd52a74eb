// SPDX-License-Identifier: MIT
#pragma once

#include "commandframe.h"
#include "replyformat.h"
#include "replykinds.h"

/// What differs between the links whose replies are text frames. The defaults are the serial
/// line's.
struct TextReplyValues {
    std::chrono::milliseconds interval{3}; ///< the pause before each pass
    const char* origin = nullptr;          ///< origin name of a reply; null for the port's name
    bool namesBlockReplies = true;         ///< a reply with a block carries the origin name too
    quint8 mark = 1;                       ///< origin mark
    quint8 immediateMark = 1;              ///< origin mark of the immediate kind
    bool hasShortBlockA = true;            ///< 33 bytes for 0x69/0x09 on device type 0x290200
    const char* decodeFailure = "";        ///< debug text before the digits of a wrong frame

    /// Debug texts for a lost block of announced length, of 129 or 33 bytes, and of 145 bytes.
    const char* announcedFailure = "CheckBlock default:";
    const char* fixedAFailure = "CheckBlock default:";
    const char* fixedBFailure = "CheckBlock default:";
};

/// Text replies, each with its block directly behind it. See replykinds for which have one.
///
/// | offset | size | content                                                      |
/// |--------|------|--------------------------------------------------------------|
/// | 0      | 1    | '<'                                                          |
/// | 1      | 1    | 'F'                                                          |
/// | 2      | 16   | the body's digits                                            |
/// | 18     | 1    | '>'                                                          |
/// | 19     | n    | the block; its last byte is the sum of the others modulo 256 |
class TextReplyFormat final : public ReplyFormat
{
public:
    constexpr explicit TextReplyFormat(const TextReplyValues& v)
        : ReplyFormat(v.interval, commandframe::textLength), values(v)
    {
    }

    bool isFindStdCmdPreFlag(ReplyStream& stream, const QByteArray& data) const override;
    bool checkCMD(ReplyStream& stream, const QByteArray& data) const override;
    bool checkBlock(ReplyStream& stream, model_Protocoldata record, quint16 length) const override;
    bool decode(const QByteArray& frame, model_Protocoldata& record) const override;
    bool isReply(const QByteArray& head) const override;

private:
    struct Block {
        int length;
        const char* failure;
    };

    Block blockOf(const model_Protocoldata& record, const replykinds::Kind& kind) const;
    QString originOf(const ReplyStream& stream) const;

    const TextReplyValues values;
};
