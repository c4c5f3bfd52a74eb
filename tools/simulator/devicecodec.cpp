// SPDX-License-Identifier: MIT
#include "devicecodec.h"

#include <QDataStream>
#include <QIODevice>

#include <algorithm>
#include <numeric>

namespace
{

constexpr quint16 replyLead = 0xf11f;
constexpr int digitCount = 16;

bool isDigit(char c)
{
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

// The bytes that a text head's digits stand for, empty if it is none.
QByteArray textBody(const QByteArray& bytes)
{
    const QByteArray digits = bytes.mid(2, digitCount);
    const bool isHead = bytes.startsWith("<T") && bytes.at(devicecodec::textHeadSize - 1) == '>' &&
                        std::all_of(digits.begin(), digits.end(), isDigit);
    return isHead ? QByteArray::fromHex(digits) : QByteArray();
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
    const bool isText = framing == Framing::Text;
    const QByteArray body = isText ? textBody(bytes) : bytes.left(binaryHeadSize);
    Head head;
    QDataStream in(body); // high byte first
    if (isText) {
        in >> head.head >> head.addr;
    } else {
        in >> head.lead >> head.addr >> head.aux3 >> head.aux4 >> head.aux5 >> head.blockLength;
    }
    in >> head.cmd >> head.dat1 >> head.dat2 >> head.dat3 >> head.dat4 >> head.sum;
    if (in.status() != QDataStream::Ok || head.sum != checksum(body.left(body.size() - 1))) {
        return std::nullopt;
    }
    if (isText) {
        head.blockLength = static_cast<quint16>(head.dat4 << 8 | head.dat3);
    }
    return head;
}

devicecodec::Head devicecodec::replyTo(const Head& command, std::optional<int> blockLength,
                                       Framing framing)
{
    Head reply = command;
    reply.blockLength = static_cast<quint16>(blockLength.value_or(0));
    if (framing == Framing::Text && blockLength) {
        reply.dat3 = static_cast<quint8>(reply.blockLength & 0xff);
        reply.dat4 = static_cast<quint8>(reply.blockLength >> 8);
    }
    return reply;
}

QByteArray devicecodec::encodeReply(const Head& reply, Framing framing)
{
    QByteArray bytes;
    QDataStream out(&bytes, QIODevice::WriteOnly);
    if (framing == Framing::Text) {
        out << reply.head << reply.addr;
    } else {
        out << replyLead << reply.addr << reply.aux3 << reply.aux4 << reply.aux5
            << reply.blockLength;
    }
    out << reply.cmd << reply.dat1 << reply.dat2 << reply.dat3 << reply.dat4;
    out << checksum(bytes);
    return framing == Framing::Text ? "<F" + bytes.toHex() + ">" : bytes;
}
