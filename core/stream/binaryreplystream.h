// SPDX-License-Identifier: MIT
#pragma once

#include "replystream.h"

/// A stream of binary replies, as the second serial line sends them. Every reply is handed on by
/// the parsing thread itself; one whose block is late or corrupt is handed on as decoded, without
/// block and stamps, so that the host sees that a reply came.
///
/// | offset | size | content                                                               |
/// |--------|------|-----------------------------------------------------------------------|
/// | 0      | 2    | 0xF1 0x1F                                                             |
/// | 0      | 16   | the head, see commandframe; its aux6 is the block's length            |
/// | 16     | aux6 | the block; its last byte is the sum of the others modulo 256          |
class BinaryReplyStream : public ReplyStream
{
public:
    BinaryReplyStream();

    bool isFindStdCmdPreFlag(const QByteArray& data) override;

    /// The parser has no use for it: hands on a record without block if \a length is 0, else does
    /// nothing and returns false.
    bool checkBlock(model_Protocoldata& record, quint16 length) override;

    bool getArrayData(const QByteArray& head, model_Protocoldata& record) const override;

private:
    std::shared_ptr<ReplyStream> emptyStream() const override;
    static ReceiveBuffer::Found find(const char* data, int size);
    bool cut(const char* head) override;
    void handOn(model_Protocoldata& record, QByteArray block) const;
};
