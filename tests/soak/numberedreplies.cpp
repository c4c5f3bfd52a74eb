// SPDX-License-Identifier: MIT
#include "numberedreplies.h"

#include "devicecodec.h"

#include <array>

namespace
{

constexpr int announced = -1;

struct Kind {
    quint8 command;
    quint8 subCode;
    int length;
};

constexpr std::array<Kind, 10> kinds{{{0x10, 0x20, 0},
                                      {0x11, 0x21, 0},
                                      {0x79, 0x0c, 0},
                                      {0x12, 0x22, 0},
                                      {0x13, 0x23, 0},
                                      {0x79, 0x05, announced},
                                      {0x8e, 0x27, announced},
                                      {0xf1, 0x41, announced},
                                      {0x8b, 0x05, 145},
                                      {0x77, 0x23, 129}}};

quint8 byteOf(quint32 number, int index)
{
    return static_cast<quint8>(number >> (8 * index));
}

quint32 fromBytes(int high, int second, int third, int low)
{
    return static_cast<quint32>(high) << 24 | static_cast<quint32>(second) << 16 |
           static_cast<quint32>(third) << 8 | static_cast<quint32>(low);
}

// Neighbours are of different kinds and lengths.
quint32 mixed(quint32 number)
{
    return number * 2654435761U >> 16;
}

// Start marks are among them, but no beginning of a reply.
char filling(int index, quint32 number)
{
    const auto byte = static_cast<char>(static_cast<quint32>(index) * 31 + number);
    if (index % 17 == 3) {
        return '<';
    }
    const bool isMark = byte == 'F' || byte == '>' || byte == 'O' || byte == '\x1f';
    return isMark ? '.' : byte;
}

QByteArray block(int length, quint32 number, bool hasChecksum)
{
    QByteArray bytes;
    for (int i = 0; i < length; ++i) {
        bytes.append(i < 4 ? static_cast<char>(byteOf(number, 3 - i)) : filling(i, number));
    }
    if (hasChecksum && length > 0) {
        bytes.chop(1);
        bytes.append(static_cast<char>(devicecodec::checksum(bytes)));
    }
    return bytes;
}

} // namespace

quint32 numberedreplies::next(quint32 number)
{
    const auto isMark = [](quint8 byte) {
        return byte == '<' || byte == '>' || byte == 0xf1 || byte == 0x1f;
    };
    do {
        ++number;
    } while (isMark(byteOf(number, 0)) || isMark(byteOf(number, 1)) || isMark(byteOf(number, 2)));
    return number;
}

numberedreplies::Reply numberedreplies::make(Link link, quint32 number)
{
    const Kind& kind = kinds[mixed(number) % kinds.size()];
    const int length =
        kind.length == announced ? 24 + static_cast<int>(mixed(number) % 280) : kind.length;
    const bool isBinary = link == Link::Vela;
    const auto framing = isBinary ? devicecodec::Framing::Binary : devicecodec::Framing::Text;
    devicecodec::Head head;
    head.addr = static_cast<quint8>(1 + static_cast<int>(link));
    head.cmd = kind.command;
    head.dat1 = kind.subCode;
    if (isBinary) {
        head.aux4 = static_cast<quint16>(number >> 16);
        head.aux5 = static_cast<quint16>(number);
        head.blockLength = static_cast<quint16>(length);
    } else {
        head.head = byteOf(number, 3);
        head.dat2 = byteOf(number, 2);
        head.dat3 =
            kind.length == announced ? byteOf(static_cast<quint32>(length), 0) : byteOf(number, 1);
        head.dat4 =
            kind.length == announced ? byteOf(static_cast<quint32>(length), 1) : byteOf(number, 0);
    }
    Reply reply;
    reply.head = devicecodec::encodeReply(head, framing);
    reply.block = block(length, number, link != Link::Udp);
    reply.isImmediate = !isBinary && kind.command == 0x79 && kind.subCode == 0x0c;

    model_Protocoldata& record = reply.record;
    record.HEAD = head.head;
    record.ADDR = head.addr;
    record.CMD = head.cmd;
    record.DAT1 = head.dat1;
    record.DAT2 = head.dat2;
    record.DAT3 = head.dat3;
    record.DAT4 = head.dat4;
    record.aux2 = isBinary ? 0xf11f : 0;
    record.aux4 = head.aux4;
    record.aux5 = head.aux5;
    record.aux6 = isBinary ? head.blockLength : quint16{0};
    record.CHKSUM = isBinary ? devicecodec::checksum(reply.head.chopped(1))
                             : devicecodec::checksum(QByteArray::fromHex(reply.head.mid(2, 14)));
    record.arryDatablock = isBinary ? reply.block.left(length - 1) : reply.block;
    return reply;
}

quint32 numberedreplies::numberOf(Link link, const model_Protocoldata& record)
{
    if (link == Link::Vela) {
        return static_cast<quint32>(record.aux4) << 16 | record.aux5;
    }
    const QByteArray& block = record.arryDatablock;
    if (block.size() < 4) {
        return fromBytes(record.HEAD, record.DAT2, record.DAT3, record.DAT4);
    }
    const auto at = [&block](int index) { return static_cast<quint8>(block.at(index)); };
    return fromBytes(at(0), at(1), at(2), at(3));
}

QByteArray numberedreplies::noise(int length, quint32 number)
{
    return block(length + 4, number, false).mid(4);
}

model_Protocoldata numberedreplies::command(quint32 number)
{
    model_Protocoldata record;
    record.ADDR = 1;
    record.CMD = 0x20;
    record.DAT2 = byteOf(number, 2);
    record.DAT3 = byteOf(number, 1);
    record.DAT4 = byteOf(number, 0);
    record.arryDatablock = block(static_cast<int>(number % 40), number, false);
    return record;
}
