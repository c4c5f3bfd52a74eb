// SPDX-License-Identifier: MIT
#include "commandreader.h"

#include <gtest/gtest.h>

namespace
{

using devicecodec::Framing;

QByteArray textCommand(int code, const QByteArray& block = {}, int announced = -1)
{
    const auto length = announced < 0 ? block.size() : announced;
    QByteArray body = QByteArray::fromHex("5a01");
    body.append(static_cast<char>(code)).append('\x05').append('\0');
    body.append(static_cast<char>(length & 0xff)).append(static_cast<char>(length >> 8));
    body.append(static_cast<char>(devicecodec::checksum(body)));
    return "<T" + body.toHex() + ">" + block;
}

QByteArray binaryCommand(int code, const QByteArray& block = {})
{
    QByteArray head = QByteArray::fromHex("f11f010000000000");
    head.append(static_cast<char>(block.size() >> 8)).append(static_cast<char>(block.size()));
    head.append(static_cast<char>(code)).append(QByteArray(4, '\x01'));
    return head + static_cast<char>(devicecodec::checksum(head)) + block;
}

std::vector<DeviceCommand> takeInPieces(CommandReader& reader, const QByteArray& bytes, int piece)
{
    std::vector<DeviceCommand> all;
    for (int at = 0; at < bytes.size(); at += piece) {
        for (const DeviceCommand& command : reader.take(bytes.mid(at, piece))) {
            all.push_back(command);
        }
    }
    return all;
}

TEST(CommandReader, CutsATextStreamHoweverItIsSplit)
{
    const QByteArray block = "<T block with <F marks>>" + QByteArray(300, '\0');
    const QByteArray stream = "noise<" + textCommand(0x10) + "<Tx" + textCommand(0x11, block) +
                              textCommand(0x12, {}, 7) + textCommand(0x13) + "<<";
    for (int piece = 1; piece <= stream.size(); ++piece) {
        CommandReader reader(Framing::Text, Medium::Stream);
        const auto commands = takeInPieces(reader, stream, piece);
        ASSERT_EQ(commands.size(), 4U) << piece;
        EXPECT_EQ(commands[0].head.cmd, 0x10);
        EXPECT_EQ(commands[1].head.cmd, 0x11);
        EXPECT_EQ(commands[1].block, block) << piece;
        EXPECT_EQ(commands[2].head.cmd, 0x12);
        EXPECT_TRUE(commands[2].block.isEmpty()) << "announced 7, sent another command";
        EXPECT_EQ(commands[3].head.cmd, 0x13);
        EXPECT_FALSE(reader.isOpen());
        EXPECT_EQ(reader.noise(), 6 + 3 + 1) << piece;
    }
}

TEST(CommandReader, CutsABinaryStreamHoweverItIsSplit)
{
    const QByteArray stream = binaryCommand(0x20, QByteArray(257, '\xf1')) + binaryCommand(0x21);
    for (int piece = 1; piece <= stream.size(); ++piece) {
        CommandReader reader(Framing::Binary, Medium::Stream);
        const auto commands = takeInPieces(reader, stream, piece);
        ASSERT_EQ(commands.size(), 2U) << piece;
        EXPECT_EQ(commands[0].block, QByteArray(257, '\xf1'));
        EXPECT_EQ(commands[1].head.cmd, 0x21);
        EXPECT_EQ(reader.noise(), 0);
    }
}

TEST(CommandReader, ResynchronisesAfterANoisyBinaryStream)
{
    CommandReader reader(Framing::Binary, Medium::Stream);
    const auto commands = reader.take(QByteArray(5, '\x77') + binaryCommand(0x22));
    ASSERT_EQ(commands.size(), 1U);
    EXPECT_EQ(commands[0].head.cmd, 0x22);
    EXPECT_EQ(reader.noise(), 5);
}

TEST(CommandReader, CutsOsdFramesOfKnownLengthHoweverTheyAreSplit)
{
    const QByteArray stream = "0123456789abcdefghijKLMNO";
    for (int piece = 1; piece <= stream.size(); ++piece) {
        CommandReader reader(Framing::Osd, Medium::Stream, 2);
        const auto commands = takeInPieces(reader, stream, piece);
        ASSERT_EQ(commands.size(), 2U) << piece;
        EXPECT_EQ(commands[0].block, QByteArray("0123456789"));
        EXPECT_EQ(commands[1].block, QByteArray("abcdefghij"));
        EXPECT_FALSE(reader.settle()) << "the rest may follow at any time";
    }
}

TEST(CommandReader, EndsAnOsdFrameOfUnknownLengthWhenSettled)
{
    CommandReader reader(Framing::Osd, Medium::Stream);
    EXPECT_TRUE(reader.take("0123").empty());
    EXPECT_TRUE(reader.take("4567").empty());
    EXPECT_TRUE(reader.isOpen());
    const auto command = reader.settle();
    ASSERT_TRUE(command);
    EXPECT_EQ(command->block, QByteArray("01234567"));
    EXPECT_FALSE(reader.isOpen());
    EXPECT_TRUE(reader.take("7 bytes").empty());
    EXPECT_FALSE(reader.settle());
    EXPECT_EQ(reader.noise(), 7);
}

TEST(CommandReader, TakesAnUnfinishedBlockAsItIsWhenSettled)
{
    CommandReader reader(Framing::Text, Medium::Stream);
    EXPECT_TRUE(reader.take(textCommand(0x10, "abc", 10)).empty());
    EXPECT_TRUE(reader.isOpen());
    const auto command = reader.settle();
    ASSERT_TRUE(command);
    EXPECT_EQ(command->block, QByteArray("abc"));
    EXPECT_FALSE(reader.isOpen());
    EXPECT_FALSE(reader.settle());
}

TEST(CommandReader, TakesADatagramAsACommand)
{
    CommandReader reader(Framing::Text, Medium::Datagrams);
    EXPECT_EQ(reader.take(textCommand(0x10)).size(), 1U);
    EXPECT_EQ(reader.take(textCommand(0x10, {}, 9)).size(), 1U) << "no block, though announced";
    const auto commands = reader.take(textCommand(0x11, "xyz"));
    ASSERT_EQ(commands.size(), 1U);
    EXPECT_EQ(commands[0].block, QByteArray("xyz"));
    EXPECT_TRUE(reader.take("noise").empty());
    EXPECT_TRUE(reader.take({}).empty());
    EXPECT_EQ(reader.noise(), 5);
}

TEST(CommandReader, JoinsTheDatagramsOfALongFrame)
{
    for (const int size : {520, 521, 522, 540, 1061, 1062, 5000, 65535}) {
        CommandReader reader(Framing::Text, Medium::Datagrams);
        QByteArray block(size, '\0');
        for (int i = 0; i < size; ++i) {
            block[i] = static_cast<char>(i * 7);
        }
        const auto commands = takeInPieces(reader, textCommand(0x12, block), 540);
        ASSERT_EQ(commands.size(), 1U) << size;
        EXPECT_EQ(commands[0].block, block) << size;
        EXPECT_EQ(reader.noise(), 0) << size;
    }
}

TEST(CommandReader, WaitsForNothingBehindADatagramThatIsNoPiece)
{
    for (const int size : {539, 541}) {
        CommandReader reader(Framing::Text, Medium::Datagrams);
        const QByteArray datagram = textCommand(0x12, QByteArray(2000, 'x')).left(size);
        EXPECT_EQ(reader.take(datagram).size(), 1U) << size;
        EXPECT_FALSE(reader.isOpen());
    }
}

TEST(CommandReader, TakesACommandInsideABlockForTheBlock)
{
    CommandReader reader(Framing::Text, Medium::Stream);
    const QByteArray block = "x" + textCommand(0x13) + "y";
    const QByteArray frame = textCommand(0x12, block);
    EXPECT_TRUE(reader.take(frame.left(20)).empty());
    const auto commands = reader.take(frame.mid(20));
    ASSERT_EQ(commands.size(), 1U);
    EXPECT_EQ(commands[0].block, block);
}

TEST(CommandReader, LetsTheNextCommandEndAFrameWhosePiecesAreMissing)
{
    CommandReader reader(Framing::Text, Medium::Datagrams);
    EXPECT_TRUE(reader.take(textCommand(0x12, QByteArray(2000, 'x')).left(540)).empty());
    const auto commands = reader.take(textCommand(0x13));
    ASSERT_EQ(commands.size(), 2U);
    EXPECT_EQ(commands[0].head.cmd, 0x12);
    EXPECT_EQ(commands[0].block.size(), 521);
    EXPECT_EQ(commands[1].head.cmd, 0x13);
}

} // namespace
