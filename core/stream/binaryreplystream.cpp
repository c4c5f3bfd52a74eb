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
    : ReplyStream(parseInterval, {commandframe::binaryLength, firstStartMark, find})
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

ReceiveBuffer::Found BinaryReplyStream::find(const char* data, int size)
{
    if (size < commandframe::binaryLength) {
        return {0, false};
    }
    const int window = qMin(size, peekSize);
    const int mark = firstStartMark(data, window);
    if (mark < 0) {
        return {window, false};
    }
    return {mark, size - mark >= commandframe::binaryLength};
}

bool BinaryReplyStream::cut(const char* head)
{
    model_Protocoldata record;
    if (!commandframe::decodeBinary(head, commandframe::binaryLength, record)) {
        buffData.discard(1);
        return false;
    }
    QByteArray block;
    if (!awaitBlock(record.aux6, block, commandframe::binaryLength) || !isBlockIntact(block)) {
        replyqueue::append(std::move(record));
        return false;
    }
    block.chop(1);
    handOn(record, std::move(block));
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

void BinaryReplyStream::handOn(model_Protocoldata& record, QByteArray block) const
{
    record.strKey2 = originName();
    record.bKeyFlag = originMark;
    record.featureCode = originType();
    record.arryDatablock = std::move(block);
    replyqueue::append(std::move(record));
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
