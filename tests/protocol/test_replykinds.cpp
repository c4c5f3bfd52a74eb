// SPDX-License-Identifier: MIT
#include "replykinds.h"

#include <gtest/gtest.h>

#include <map>
#include <utility>

using replykinds::Block;

namespace
{

model_Protocoldata reply(int command, int subCode)
{
    model_Protocoldata record;
    record.CMD = static_cast<quint8>(command);
    record.DAT1 = static_cast<quint8>(subCode);
    return record;
}

} // namespace

TEST(ReplyKinds, EveryCommandAndSubCode)
{
    for (int command = 0; command < 256; ++command) {
        for (int subCode = 0; subCode < 256; ++subCode) {
            Block udp = Block::None;
            Block stream = Block::None;
            if (command == 0x79) {
                udp = subCode == 9 || subCode == 12 ? Block::Immediate : Block::Announced;
                stream = subCode == 12 ? Block::Immediate : Block::Announced;
            } else if (command == 0xf1) {
                udp = subCode == '@' ? Block::AnnouncedIfAny : Block::Announced;
                stream = Block::Announced;
            } else if (command == 0x8e && subCode == '\'') {
                udp = stream = Block::Announced;
            } else if (command == 0x8b && subCode == 5) {
                udp = stream = Block::FixedB;
            } else if ((command == 0x77 && subCode == '#') || (command == 0x69 && subCode == 9) ||
                       (command == 0x8b && subCode == 9)) {
                udp = stream = Block::FixedA;
            }
            const replykinds::Kind kind = replykinds::kindOf(reply(command, subCode));
            ASSERT_EQ(kind.onUdp, udp) << std::hex << command << ' ' << subCode;
            ASSERT_EQ(kind.onStream, stream) << std::hex << command << ' ' << subCode;
            ASSERT_EQ(kind.mayBeShort, command == 0x69 && subCode == 9);
        }
    }
}

TEST(ReplyKinds, Lengths)
{
    EXPECT_EQ(replykinds::fixedLength(Block::FixedA), 129);
    EXPECT_EQ(replykinds::fixedLength(Block::FixedB), 145);
    EXPECT_EQ(replykinds::fixedLength(Block::Announced), 0);
    EXPECT_EQ(replykinds::fixedLength(Block::None), 0);
    EXPECT_EQ(replykinds::fixedLengthAShort, 33);
    model_Protocoldata record;
    record.DAT3 = 0x05;
    record.DAT4 = 0x01;
    EXPECT_EQ(replykinds::announcedLength(record), 261);
    record.DAT3 = record.DAT4 = 0xff;
    EXPECT_EQ(replykinds::announcedLength(record), 65535);
}
