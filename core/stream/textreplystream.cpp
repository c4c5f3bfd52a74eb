// SPDX-License-Identifier: MIT
#include "textreplystream.h"

#include "commandframe.h"
#include "debugline.h"
#include "devicetypes.h"
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

QString frameText(const char* frame)
{
    return textWithBytes("Recv data:", QByteArray(frame, commandframe::textLength));
}

} // namespace

TextReplyStream::TextReplyStream(const TextReplyValues& v)
    : ReplyStream(v.interval, {commandframe::textLength, firstStartMark, find}), values(v)
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
    if (buffData.peek(head.data(), head.size()) < static_cast<int>(head.size())) {
        return false;
    }
    if (head[1] == commandframe::replyMark) {
        return true;
    }
    buffData.discard(1);
    return false;
}

// As isFindStdCmdPreFlag, and the look at the end mark.
ReceiveBuffer::Found TextReplyStream::find(const char* data, int size)
{
    if (size < commandframe::textLength) {
        return {0, false};
    }
    const int window = qMin(size, peekSize);
    const int mark = firstStartMark(data, window);
    if (mark < 0) {
        return {window, false};
    }
    const int rest = size - mark;
    if (rest >= 2 && data[mark + 1] != commandframe::replyMark) {
        return {mark + 1, false};
    }
    if (rest < commandframe::textLength) {
        return {mark, false}; // what is missing may still arrive
    }
    if (data[mark + endMarkOffset] != commandframe::endMark) {
        return {mark + 1, false};
    }
    return {mark, true};
}

bool TextReplyStream::cut(const char* frame)
{
    using replykinds::Block;
    model_Protocoldata record;
    if (!decode(frame, commandframe::textLength, record)) {
        buffData.discard(1);
        return false;
    }
    buffData.discard(commandframe::textLength);
    const replykinds::Kind kind = replykinds::kindOf(record);
    switch (kind.onStream) {
    case Block::None:
        qCDebug(debugLine) << frameText(frame);
        stamp(record, values.mark);
        record.strKey2 = origin();
        replyqueue::post(std::move(record));
        return true;
    case Block::Immediate:
        stamp(record, values.immediateMark);
        record.strKey2 = origin();
        replyqueue::append(std::move(record));
        return true;
    case Block::FixedA: {
        const bool isShort = kind.mayBeShort && values.shortBlockA &&
                             Utility_Manage::getDeviceType() == devicetypes::shortBlock;
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

bool TextReplyStream::takeBlock(model_Protocoldata& record, const char* frame, int length,
                                const char* failure)
{
    const bool taken = checkBlock(record, static_cast<quint16>(length));
    if (taken) {
        qCDebug(debugLine) << frameText(frame);
    } else {
        qCDebug(debugLine) << frameText(frame) << QLatin1String(failure);
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
    record.arryDatablock = std::move(block);
    replyqueue::append(std::move(record));
    return true;
}

bool TextReplyStream::getArrayData(const QByteArray& frame, model_Protocoldata& record) const
{
    model_Protocoldata decoded;
    if (!decode(frame.constData(), frame.size(), decoded)) {
        return false;
    }
    record = std::move(decoded);
    return true;
}

bool TextReplyStream::decode(const char* frame, int size, model_Protocoldata& record) const
{
    if (commandframe::decodeText(frame, size, record)) {
        return true;
    }
    qCDebug(debugLine) << QString(QLatin1String(values.decodeFailure) +
                                  commandframe::digitsOf(QByteArray(frame, size)));
    return false;
}

void TextReplyStream::stamp(model_Protocoldata& record, quint8 mark) const
{
    record.bKeyFlag = mark;
    record.featureCode = originType();
}

QString TextReplyStream::origin() const
{
    return values.origin == nullptr ? originName() : QString::fromLatin1(values.origin);
}
