// SPDX-License-Identifier: MIT
#pragma once

#include "commandframe.h"
#include "replyformat.h"

/// Binary replies, as the second serial line sends them. Every reply is handed on by the parsing
/// thread itself. One whose block is late or corrupt is handed on as decoded, without block and
/// stamps, so that the host sees that a reply came.
///
/// | offset | size | content                                                               |
/// |--------|------|-----------------------------------------------------------------------|
/// | 0      | 2    | 0xF1 0x1F                                                             |
/// | 0      | 16   | the head, see commandframe; its aux6 is the block's length            |
/// | 16     | aux6 | the block; its last byte is the sum of the others modulo 256          |
class BinaryReplyFormat final : public ReplyFormat
{
public:
    constexpr BinaryReplyFormat()
        : ReplyFormat(std::chrono::milliseconds(3), commandframe::binaryLength)
    {
    }

    bool isFindStdCmdPreFlag(ReplyStream& stream, const QByteArray& data) const override;
    bool checkCMD(ReplyStream& stream, const QByteArray& data) const override;

    /// The parser has no use for it: hands on a record without block if \a length is 0, else does
    /// nothing and returns false.
    bool checkBlock(ReplyStream& stream, model_Protocoldata record, quint16 length) const override;

    bool decode(const QByteArray& head, model_Protocoldata& record) const override;
    bool isReply(const QByteArray& head) const override;
};
