// SPDX-License-Identifier: MIT
#include "binaryreplystream.h"

#include "commandframe.h"
#include "replyqueue.h"

#include <cstring>

namespace
{

constexpr std::chrono::milliseconds parseInterval{3};
constexpr char startMark[] = {'\xF1', '\x1F'};
constexpr quint8 originMark = 1; // serial

// A 0xF1 at the end of the window is not waited for: the device sends its marks whole.
int firstStartMark(const char* window, int size)
{
    const void* found =
        size == 0 ? nullptr
                  : memmem(window, static_cast<std::size_t>(size), startMark, sizeof startMark);
    return found == nullptr ? -1 : static_cast<int>(static_cast<const char*>(found) - window);
}

} // namespace

BinaryReplyStream::BinaryReplyStream()
    : ReplyStream(parseInterval, {commandframe::binaryLength, firstStartMark})
{
}

std::shared_ptr<ReplyStream> BinaryReplyStream::emptyStream() const
{
    return std::make_shared<BinaryReplyStream>();
}

bool BinaryReplyStream::isFindStdCmdPreFlag(const QByteArray& data)
{
    return skipTo(data);
}

void BinaryReplyStream::takeReply()
{
    const QByteArray head = buffer.peek(commandframe::binaryLength);
    if (head.size() == commandframe::binaryLength) {
        cut(head);
    }
}

bool BinaryReplyStream::checkCMD(const QByteArray& data)
{
    if (data.size() < commandframe::binaryLength) {
        return false;
    }
    return cut(data.left(commandframe::binaryLength));
}

bool BinaryReplyStream::cut(const QByteArray& head)
{
    model_Protocoldata record;
    if (!getArrayData(head, record)) {
        buffer.discard(1);
        return false;
    }
    buffer.discard(commandframe::binaryLength);
    QByteArray block;
    if (!awaitBlock(record.aux6, block) || !isBlockIntact(block)) {
        replyqueue::append(record);
        return false;
    }
    block.chop(1);
    handOn(record, block);
    return true;
}

bool BinaryReplyStream::checkBlock(model_Protocoldata& record, quint16 length)
{
    if (length != 0) {
        return false;
    }
    handOn(record, QByteArray());
    return true;
}

void BinaryReplyStream::handOn(model_Protocoldata& record, const QByteArray& block) const
{
    record.strKey2 = originName();
    record.bKeyFlag = originMark;
    record.featureCode = deviceType();
    record.arryDatablock = block;
    replyqueue::append(record);
}

bool BinaryReplyStream::getArrayData(const QByteArray& head, model_Protocoldata& record) const
{
    model_Protocoldata decoded;
    if (!commandframe::decodeBinary(head, decoded)) {
        return false;
    }
    record = std::move(decoded);
    return true;
}
