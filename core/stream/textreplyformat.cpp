// SPDX-License-Identifier: MIT
#include "textreplyformat.h"

#include "debugline.h"
#include "replyqueue.h"
#include "utility_manage.h"

bool TextReplyFormat::isFindStdCmdPreFlag(ReplyStream& stream, const QByteArray& data) const
{
    if (!stream.skipTo(data.indexOf(commandframe::startMark), data.size())) {
        return false;
    }
    const QByteArray marks = stream.received.peek(2);
    if (marks.size() < 2) {
        return false; // the second may still arrive
    }
    if (marks.back() == commandframe::replyMark) {
        return true;
    }
    stream.skip(1);
    return false;
}

bool TextReplyFormat::isReply(const QByteArray& head) const
{
    return head.at(0) == commandframe::startMark && head.at(1) == commandframe::replyMark &&
           head.at(commandframe::textLength - 1) == commandframe::endMark;
}

bool TextReplyFormat::checkCMD(ReplyStream& stream, const QByteArray& data) const
{
    using replykinds::Block;
    if (data.size() < headLength) {
        return false;
    }
    const QByteArray frame = data.left(headLength);
    model_Protocoldata record;
    if (!decode(frame, record)) {
        stream.tap->refuse(LinkEvent::Check::Checksum, frame);
        stream.skip(1);
        return false;
    }
    stream.received.discard(headLength);
    const auto shown = [&frame] { return textWithBytes("Recv data:", frame); };
    const replykinds::Kind kind = replykinds::kindOf(record);
    if (kind.onStream == Block::None) {
        qCDebug(debugLine) << shown();
        stream.stamp(record, values.mark);
        record.strKey2 = originOf(stream);
        replyqueue::post(std::move(record), *stream.tap);
        return true;
    }
    if (kind.onStream == Block::Immediate) {
        stream.stamp(record, values.immediateMark);
        record.strKey2 = originOf(stream);
        replyqueue::append(std::move(record), *stream.tap);
        return true;
    }
    const auto [length, failure] = blockOf(record, kind);
    if (!checkBlock(stream, std::move(record), static_cast<quint16>(length))) {
        qCDebug(debugLine) << shown() << QLatin1String(failure);
        return false;
    }
    qCDebug(debugLine) << shown();
    return true;
}

TextReplyFormat::Block TextReplyFormat::blockOf(const model_Protocoldata& record,
                                                const replykinds::Kind& kind) const
{
    const int fixed = replykinds::fixedLength(kind.onStream);
    if (kind.onStream == replykinds::Block::FixedB) {
        return {fixed, values.fixedBFailure};
    }
    if (kind.onStream == replykinds::Block::FixedA) {
        const bool isShort = kind.mayBeShort && values.hasShortBlockA &&
                             Utility_Manage::getDeviceType() == devicetypes::shortBlock;
        return {isShort ? replykinds::fixedLengthAShort : fixed, values.fixedAFailure};
    }
    return {replykinds::announcedLength(record), values.announcedFailure};
}

bool TextReplyFormat::checkBlock(ReplyStream& stream, model_Protocoldata record,
                                 quint16 length) const
{
    QByteArray block;
    if (!stream.takeBlock(record, length, block)) {
        return false;
    }
    record.arryDatablock = std::move(block);
    stream.stamp(record, values.mark);
    if (values.namesBlockReplies) {
        record.strKey2 = originOf(stream);
    }
    replyqueue::append(std::move(record), *stream.tap);
    return true;
}

bool TextReplyFormat::decode(const QByteArray& frame, model_Protocoldata& record) const
{
    if (commandframe::decodeText(frame, record)) {
        return true;
    }
    qCDebug(debugLine) << QString(QLatin1String(values.decodeFailure) +
                                  commandframe::digitsOf(frame));
    return false;
}

QString TextReplyFormat::originOf(const ReplyStream& stream) const
{
    return values.origin == nullptr ? stream.originName() : QString::fromLatin1(values.origin);
}
