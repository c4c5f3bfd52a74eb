// SPDX-License-Identifier: MIT
#include "devicecodec.h"

#include <algorithm>
#include <numeric>

namespace
{

constexpr quint16 replyLead = 0xf11f;
constexpr int digitCount = 16;

quint8 at(const QByteArray& bytes, int index)
{
    return static_cast<quint8>(bytes.at(index));
}

quint16 wordAt(const QByteArray& bytes, int index)
{
    return static_cast<quint16>(at(bytes, index) << 8 | at(bytes, index + 1));
}

void appendWord(QByteArray& bytes, quint16 value)
{
    bytes.append(static_cast<char>(value >> 8));
    bytes.append(static_cast<char>(value & 0xff));
}

bool isDigit(char c)
{
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

bool endsWithItsChecksum(const QByteArray& bytes)
{
    return devicecodec::checksum(bytes.left(bytes.size() - 1)) == at(bytes, bytes.size() - 1);
}

std::optional<devicecodec::Head> decodeTextCommand(const QByteArray& bytes)
{
    const QByteArray digits = bytes.mid(2, digitCount);
    if (!bytes.startsWith("<T") || bytes.at(devicecodec::textHeadSize - 1) != '>' ||
        !std::all_of(digits.begin(), digits.end(), isDigit)) {
        return std::nullopt;
    }
    const QByteArray body = QByteArray::fromHex(digits);
    if (!endsWithItsChecksum(body)) {
        return std::nullopt;
    }
    devicecodec::Head head;
    head.head = at(body, 0);
    head.addr = at(body, 1);
    head.cmd = at(body, 2);
    head.dat1 = at(body, 3);
    head.dat2 = at(body, 4);
    head.dat3 = at(body, 5);
    head.dat4 = at(body, 6);
    head.sum = at(body, 7);
    head.blockLength = static_cast<quint16>(head.dat4 << 8 | head.dat3);
    return head;
}

std::optional<devicecodec::Head> decodeBinaryCommand(const QByteArray& bytes)
{
    const QByteArray frame = bytes.left(devicecodec::binaryHeadSize);
    if (!endsWithItsChecksum(frame)) {
        return std::nullopt;
    }
    devicecodec::Head head;
    head.lead = wordAt(frame, 0);
    head.addr = at(frame, 2);
    head.aux3 = at(frame, 3);
    head.aux4 = wordAt(frame, 4);
    head.aux5 = wordAt(frame, 6);
    head.blockLength = wordAt(frame, 8);
    head.cmd = at(frame, 10);
    head.dat1 = at(frame, 11);
    head.dat2 = at(frame, 12);
    head.dat3 = at(frame, 13);
    head.dat4 = at(frame, 14);
    head.sum = at(frame, 15);
    return head;
}

} // namespace

int devicecodec::headSize(Framing framing)
{
    return framing == Framing::Text ? textHeadSize : binaryHeadSize;
}

quint8 devicecodec::checksum(const QByteArray& bytes)
{
    return static_cast<quint8>(
        std::accumulate(bytes.begin(), bytes.end(), 0U,
                        [](unsigned sum, char byte) { return sum + static_cast<quint8>(byte); }));
}

std::optional<devicecodec::Head> devicecodec::decodeCommand(const QByteArray& bytes,
                                                            Framing framing)
{
    if (bytes.size() < headSize(framing)) {
        return std::nullopt;
    }
    return framing == Framing::Text ? decodeTextCommand(bytes) : decodeBinaryCommand(bytes);
}

QByteArray devicecodec::encodeReply(const Head& reply, Framing framing)
{
    QByteArray bytes;
    const auto put = [&bytes](quint8 byte) { bytes.append(static_cast<char>(byte)); };
    if (framing == Framing::Text) {
        put(reply.head);
        put(reply.addr);
    } else {
        appendWord(bytes, replyLead);
        put(reply.addr);
        put(reply.aux3);
        appendWord(bytes, reply.aux4);
        appendWord(bytes, reply.aux5);
        appendWord(bytes, reply.blockLength);
    }
    for (const quint8 byte : {reply.cmd, reply.dat1, reply.dat2, reply.dat3, reply.dat4}) {
        put(byte);
    }
    put(checksum(bytes));
    return framing == Framing::Text ? "<F" + bytes.toHex() + ">" : bytes;
}
