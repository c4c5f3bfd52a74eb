// SPDX-License-Identifier: MIT
#include "binaryreplyformat.h"

#include "replyqueue.h"

namespace
{

constexpr quint8 originMark = 1; // serial

void handOn(const ReplyStream& stream, model_Protocoldata record, const QByteArray& block)
{
    stream.stamp(record, originMark);
    record.strKey2 = stream.originName();
    record.arryDatablock = block;
    replyqueue::append(std::move(record), *stream.tap);
}

} // namespace

// A 0xF1 at the end of the data is not waited for: the device sends its marks whole.
bool BinaryReplyFormat::isFindStdCmdPreFlag(ReplyStream& stream, const QByteArray& data) const
{
    return stream.skipTo(data.indexOf("\xF1\x1F"), data.size());
}

bool BinaryReplyFormat::isReply(const QByteArray& /*head*/) const
{
    return true;
}

bool BinaryReplyFormat::checkCMD(ReplyStream& stream, const QByteArray& data) const
{
    if (data.size() < headLength) {
        return false;
    }
    model_Protocoldata record;
    if (!decode(data.left(headLength), record)) {
        stream.tap->refuse(LinkEvent::Check::Checksum, data.left(headLength));
        stream.skip(1);
        return false;
    }
    stream.received.discard(headLength);
    QByteArray block;
    if (!stream.takeBlock(record, record.aux6, block)) {
        replyqueue::append(std::move(record), *stream.tap);
        return false;
    }
    block.chop(1);
    handOn(stream, std::move(record), block);
    return true;
}

bool BinaryReplyFormat::checkBlock(ReplyStream& stream, model_Protocoldata record,
                                   quint16 length) const
{
    if (length != 0) {
        return false;
    }
    handOn(stream, std::move(record), QByteArray());
    return true;
}

bool BinaryReplyFormat::decode(const QByteArray& head, model_Protocoldata& record) const
{
    return commandframe::decodeBinary(head, record);
}
