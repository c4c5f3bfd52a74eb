// SPDX-License-Identifier: MIT
#include "blockjoin.h"

#include <gtest/gtest.h>

using blockjoin::Outcome;

namespace
{

model_Protocoldata reply(quint8 command, quint8 subCode, quint8 low, quint8 high)
{
    model_Protocoldata record;
    record.CMD = command;
    record.DAT1 = subCode;
    record.DAT3 = low;
    record.DAT4 = high;
    return record;
}

QByteArray bytes(int count)
{
    QByteArray result;
    for (int i = 0; i < count; ++i) {
        result.append(static_cast<char>(i * 7));
    }
    return result;
}

} // namespace

TEST(BlockJoin, FixedKindsTakeTheirLengthWhateverIsAnnounced)
{
    const struct {
        quint8 command;
        quint8 subCode;
        int length;
    } kinds[] = {{0x77, 0x23, 129}, {0x8b, 0x05, 145}, {0x8b, 0x09, 129}, {0x69, 0x09, 129}};
    for (const auto& kind : kinds) {
        const auto joined = blockjoin::join(reply(kind.command, kind.subCode, 0, 0), bytes(200));
        EXPECT_EQ(joined.outcome, Outcome::Joined);
        EXPECT_FALSE(joined.announced);
        EXPECT_EQ(joined.record.arryDatablock, bytes(kind.length));
        const auto shorter = blockjoin::join(reply(kind.command, kind.subCode, 1, 1), bytes(10));
        EXPECT_EQ(shorter.outcome, Outcome::Joined);
        EXPECT_EQ(shorter.record.arryDatablock, bytes(10));
    }
}

TEST(BlockJoin, OtherSubCodesGoThroughTheLengthCheck)
{
    EXPECT_EQ(blockjoin::join(reply(0x77, 0x24, 0, 0), bytes(129)).outcome, Outcome::ZeroLength);
    EXPECT_EQ(blockjoin::join(reply(0x8b, 0x06, 5, 0), bytes(145)).outcome, Outcome::Joined);
    EXPECT_EQ(blockjoin::join(reply(0x69, 0x08, 9, 0), bytes(8)).outcome, Outcome::LengthMismatch);
}

TEST(BlockJoin, AnnouncedLengthIsLowByteFirst)
{
    const auto joined = blockjoin::join(reply(0xf1, 0x10, 0, 1), bytes(300));
    EXPECT_EQ(joined.outcome, Outcome::Joined);
    EXPECT_EQ(joined.length, 256);
    EXPECT_EQ(joined.record.arryDatablock, bytes(256));
}

TEST(BlockJoin, AnnouncedLengthMustBeThere)
{
    EXPECT_EQ(blockjoin::join(reply(0xf1, 0, 16, 0), bytes(16)).outcome, Outcome::Joined);
    EXPECT_EQ(blockjoin::join(reply(0xf1, 0, 16, 0), bytes(17)).record.arryDatablock, bytes(16));
    const auto shorter = blockjoin::join(reply(0xf1, 0, 16, 0), bytes(15));
    EXPECT_EQ(shorter.outcome, Outcome::LengthMismatch);
    EXPECT_EQ(shorter.record.arryDatablock.size(), 15);
}

TEST(BlockJoin, NegativeLengthTakesAllAndFails)
{
    for (const int size : {1, 100, 32768, 65507}) {
        const auto failed = blockjoin::join(reply(0xf1, 0, 0, 0x80), bytes(size));
        EXPECT_EQ(failed.outcome, Outcome::LengthMismatch);
        EXPECT_EQ(failed.length, -32768);
        EXPECT_EQ(failed.record.arryDatablock.size(), size);
    }
    EXPECT_EQ(blockjoin::join(reply(0xf1, 0, 0xff, 0x7f), bytes(40000)).outcome, Outcome::Joined);
}

TEST(BlockJoin, TextsOfFailures)
{
    EXPECT_STREQ(blockjoin::failureText(Outcome::ZeroLength),
                 "arraylen=!arrayreceived.size() return");
    EXPECT_STREQ(blockjoin::failureText(Outcome::LengthMismatch),
                 "combineTwoByte(parameters.DAT3, parameters.DAT4) != "
                 "parameters.arryDatablock.size() return");
    EXPECT_EQ(blockjoin::failureText(Outcome::Joined), nullptr);
}
