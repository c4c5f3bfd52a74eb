// SPDX-License-Identifier: MIT
#include "textreplystream.h"

#include "commandframe.h"
#include "debugline.h"
#include "replykinds.h"
#include "replyqueue.h"
#include "utility_manage.h"

#include <array>
#include <cstring>

namespace
{

constexpr int endMarkOffset = commandframe::textLength - 1;

int firstStartMark(const char* window, int size)
{
    const void* found =
        size == 0 ? nullptr
                  : std::memchr(window, commandframe::startMark, static_cast<std::size_t>(size));
    return found == nullptr ? -1 : static_cast<int>(static_cast<const char*>(found) - window);
}

} // namespace

TextReplyStream::TextReplyStream(const TextReplyValues& v)
    : ReplyStream(v.interval, {commandframe::textLength, firstStartMark}), values(v)
{
}

std::shared_ptr<ReplyStream> TextReplyStream::emptyStream() const
{
    return std::make_shared<TextReplyStream>(values);
}

bool TextReplyStream::isFindStdCmdPreFlag(const QByteArray& data)
{
    if (!skipTo(data)) {
        return false;
    }
    std::array<char, 2> head{};
    if (buffer.peek(head.data(), head.size()) < static_cast<int>(head.size())) {
        return false;
    }
    if (head[1] == commandframe::replyMark) {
        return true;
    }
    buffer.discard(1);
    return false;
}

// As isFindStdCmdPreFlag from its second look on, and the look at the end mark, in one.
void TextReplyStream::takeReply()
{
    std::array<char, commandframe::textLength> head{};
    const int size = buffer.peek(head.data(), head.size());
    if (size >= 2 && head[1] != commandframe::replyMark) {
        buffer.discard(1);
    } else if (size < commandframe::textLength) {
        return; // the rest may still arrive
    } else if (head[0] != commandframe::startMark || head[endMarkOffset] != commandframe::endMark) {
        buffer.discard(1);
    } else {
        cut(QByteArray(head.data(), head.size()));
    }
}

bool TextReplyStream::checkCMD(const QByteArray& data)
{
    if (data.size() < commandframe::textLength) {
        return false;
    }
    return cut(data.left(commandframe::textLength));
}

bool TextReplyStream::cut(const QByteArray& frame)
{
    using replykinds::Block;
    model_Protocoldata record;
    if (!getArrayData(frame, record)) {
        buffer.discard(1);
        return false;
    }
    buffer.discard(commandframe::textLength);
    const replykinds::Kind kind = replykinds::kindOf(record);
    switch (kind.onStream) {
    case Block::None:
        qCDebug(debugLine) << textWithBytes("Recv data:", frame);
        stamp(record, values.mark);
        record.strKey2 = origin();
        replyqueue::post(std::move(record));
        return true;
    case Block::Immediate:
        stamp(record, values.immediateMark);
        record.strKey2 = origin();
        replyqueue::append(record);
        return true;
    case Block::FixedA: {
        const bool isShort = kind.mayBeShort && values.shortBlockA &&
                             Utility_Manage::getDeviceType() == model_GlobalEnum::Device290200;
        return takeBlock(record, frame,
                         isShort ? replykinds::fixedLengthAShort
                                 : replykinds::fixedLength(kind.onStream),
                         values.fixedAFailure);
    }
    case Block::FixedB:
        return takeBlock(record, frame, replykinds::fixedLength(kind.onStream),
                         values.fixedBFailure);
    case Block::Announced:
    case Block::AnnouncedIfAny:
        break;
    }
    return takeBlock(record, frame, replykinds::announcedLength(record), values.announcedFailure);
}

bool TextReplyStream::takeBlock(model_Protocoldata& record, const QByteArray& frame, int length,
                                const char* failure)
{
    const bool taken = checkBlock(record, static_cast<quint16>(length));
    if (taken) {
        qCDebug(debugLine) << textWithBytes("Recv data:", frame);
    } else {
        qCDebug(debugLine) << textWithBytes("Recv data:", frame) << QLatin1String(failure);
    }
    return taken;
}

bool TextReplyStream::checkBlock(model_Protocoldata& record, quint16 length)
{
    QByteArray block;
    if (length != 0 && (!awaitBlock(length, block) || !isBlockIntact(block))) {
        return false;
    }
    stamp(record, values.mark);
    if (values.namesBlockReplies) {
        record.strKey2 = origin();
    }
    record.arryDatablock = block;
    replyqueue::append(record);
    return true;
}

bool TextReplyStream::getArrayData(const QByteArray& frame, model_Protocoldata& record) const
{
    model_Protocoldata decoded;
    if (!commandframe::decodeText(frame, decoded)) {
        qCDebug(debugLine) << QString(QLatin1String(values.decodeFailure) +
                                      commandframe::digitsOf(frame));
        return false;
    }
    record = std::move(decoded);
    return true;
}

void TextReplyStream::stamp(model_Protocoldata& record, quint8 mark) const
{
    record.bKeyFlag = mark;
    record.featureCode = deviceType();
}

QString TextReplyStream::origin() const
{
    return values.origin == nullptr ? originName() : QString::fromLatin1(values.origin);
}
