// SPDX-License-Identifier: MIT
#include "replykinds.h"

#include <array>

namespace
{

using replykinds::Block;
using replykinds::Kind;

constexpr int anySubCode = -1;

struct Row {
    quint8 command;
    int subCode;
    Kind kind;
};

// The first matching row decides.
constexpr std::array<Row, 10> rows{{
    {0x79, 0x0C, {Block::Immediate, Block::Immediate, false}},
    {0x79, 0x09, {Block::Immediate, Block::Announced, false}},
    {0x79, anySubCode, {Block::Announced, Block::Announced, false}},
    {0xF1, 0x40, {Block::AnnouncedIfAny, Block::Announced, false}},
    {0xF1, anySubCode, {Block::Announced, Block::Announced, false}},
    {0x8E, 0x27, {Block::Announced, Block::Announced, false}},
    {0x8B, 0x05, {Block::FixedB, Block::FixedB, false}},
    {0x77, 0x23, {Block::FixedA, Block::FixedA, false}},
    {0x69, 0x09, {Block::FixedA, Block::FixedA, true}},
    {0x8B, 0x09, {Block::FixedA, Block::FixedA, false}},
}};

constexpr Kind standard{Block::None, Block::None, false};

} // namespace

Kind replykinds::kindOf(const model_Protocoldata& reply)
{
    for (const Row& row : rows) {
        if (row.command == reply.CMD && (row.subCode == anySubCode || row.subCode == reply.DAT1)) {
            return row.kind;
        }
    }
    return standard;
}

quint16 replykinds::announcedLength(const model_Protocoldata& reply)
{
    return static_cast<quint16>(reply.DAT4 * 256 + reply.DAT3);
}

int replykinds::fixedLength(Block block)
{
    switch (block) {
    case Block::FixedA:
        return fixedLengthA;
    case Block::FixedB:
        return fixedLengthB;
    default:
        return 0;
    }
}
