// SPDX-License-Identifier: MIT
#pragma once

#include "replystream.h"

/// What differs between the links whose replies are text frames.
struct TextReplyValues {
    std::chrono::milliseconds interval; ///< pause before each pass
    const char* origin;                 ///< origin name of every reply; null for the port's name
    bool namesBlockReplies;             ///< replies with a block carry the origin name too
    quint8 mark;                        ///< origin mark
    quint8 immediateMark;               ///< origin mark of the immediate kind
    bool shortBlockA;                   ///< 33 bytes for 0x69/0x09 on device type 0x290200
    const char* decodeFailure;          ///< debug text before the digits of a wrong frame
    const char* announcedFailure;       ///< debug text for a lost block of announced length,
    const char* fixedAFailure;          ///< of 129 (or 33) bytes,
    const char* fixedBFailure;          ///< of 145 bytes
};

/// A stream of text replies, each with its block directly behind it. See replykinds for which have
/// one.
///
/// | offset | size | content                                                      |
/// |--------|------|--------------------------------------------------------------|
/// | 0      | 1    | '<'                                                          |
/// | 1      | 1    | 'F'                                                          |
/// | 2      | 16   | the body's digits                                            |
/// | 18     | 1    | '>'                                                          |
/// | 19     | n    | the block; its last byte is the sum of the others modulo 256 |
class TextReplyStream : public ReplyStream
{
public:
    /// \a values must live for ever.
    explicit TextReplyStream(const TextReplyValues& values);

    bool isFindStdCmdPreFlag(const QByteArray& data) override;
    bool checkBlock(model_Protocoldata& record, quint16 length) override;
    bool getArrayData(const QByteArray& frame, model_Protocoldata& record) const override;

private:
    std::shared_ptr<ReplyStream> emptyStream() const override;
    static ReceiveBuffer::Found find(const char* data, int size);
    bool cut(const char* frame) override;
    bool takeBlock(model_Protocoldata& record, const char* frame, int length, const char* failure);
    bool decode(const char* frame, int size, model_Protocoldata& record) const;
    void stamp(model_Protocoldata& record, quint8 mark) const;
    QString origin() const;

    const TextReplyValues& values;
};
