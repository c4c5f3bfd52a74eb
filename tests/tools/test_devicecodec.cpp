// SPDX-License-Identifier: MIT
#include "devicecodec.h"

#include <gtest/gtest.h>

#include <QFile>

namespace
{

using devicecodec::decodeCommand;
using devicecodec::encodeReply;
using devicecodec::Framing;
using devicecodec::Head;

struct Golden {
    Framing framing = Framing::Text;
    std::vector<int> fields;
    QByteArray block;
    QByteArray frame;
};

// "text FIELDS BLOCK FRAME" or "binary ...", written by a generator of its own.
std::vector<Golden> goldenFrames()
{
    QFile file(QStringLiteral(GOLDEN_FRAMES));
    std::vector<Golden> frames;
    if (!file.open(QIODevice::ReadOnly)) {
        return frames;
    }
    for (const QByteArray& line : file.readAll().trimmed().split('\n')) {
        const QList<QByteArray> words = line.split(' ');
        Golden golden;
        golden.framing = words.at(0) == "text" ? Framing::Text : Framing::Binary;
        for (const QByteArray& field : words.at(1).split(',')) {
            golden.fields.push_back(field.toInt(nullptr, 16));
        }
        golden.block = words.at(2) == "-" ? QByteArray() : QByteArray::fromHex(words.at(2));
        golden.frame = QByteArray::fromHex(words.at(3));
        frames.push_back(golden);
    }
    return frames;
}

std::vector<int> fieldsOf(const Head& head, Framing framing)
{
    std::vector<int> fields{head.cmd, head.dat1, head.dat2, head.dat3, head.dat4};
    const std::vector<int> text{head.head, head.addr};
    const std::vector<int> binary{head.lead, head.addr, head.aux3, head.aux4, head.aux5};
    const std::vector<int>& first = framing == Framing::Text ? text : binary;
    fields.insert(fields.begin(), first.begin(), first.end());
    return fields;
}

TEST(DeviceCodec, ReadsEveryGoldenCommand)
{
    const auto frames = goldenFrames();
    ASSERT_GT(frames.size(), 100U);
    for (const Golden& golden : frames) {
        const auto head = decodeCommand(golden.frame, golden.framing);
        ASSERT_TRUE(head) << golden.frame.toHex().constData();
        EXPECT_EQ(fieldsOf(*head, golden.framing), golden.fields);
        if (golden.framing == Framing::Binary) {
            EXPECT_EQ(head->blockLength, golden.block.size() & 0xffff);
        } else {
            EXPECT_EQ(head->blockLength, golden.fields[6] * 256 + golden.fields[5]);
        }
    }
}

TEST(DeviceCodec, ReadsDigitsOfEitherCase)
{
    const auto head = decodeCommand("<TABcdEF807F000167>", Framing::Text);
    ASSERT_TRUE(head);
    EXPECT_EQ(head->head, 0xab);
    EXPECT_EQ(head->cmd, 0xef);
    EXPECT_EQ(head->dat4, 0x01);
}

TEST(DeviceCodec, RefusesATextHeadWithAnyByteWrong)
{
    const QByteArray frame = "<T010203040506071c>";
    ASSERT_TRUE(decodeCommand(frame, Framing::Text));
    for (int i = 0; i < frame.size(); ++i) {
        QByteArray wrong = frame;
        wrong[i] = static_cast<char>(wrong.at(i) ^ 0x03);
        EXPECT_FALSE(decodeCommand(wrong, Framing::Text)) << wrong.constData();
        EXPECT_FALSE(decodeCommand(frame.left(i), Framing::Text)) << i;
    }
    EXPECT_FALSE(decodeCommand("<F010203040506071c>", Framing::Text)) << "a reply is no command";
    EXPECT_FALSE(decodeCommand("<T 1020304050607 c>", Framing::Text));
}

TEST(DeviceCodec, RefusesABinaryHeadWithAnyByteWrongOrMissing)
{
    const QByteArray frame = QByteArray::fromHex("f11f0203000400050003060708090a49");
    ASSERT_TRUE(decodeCommand(frame, Framing::Binary));
    for (int i = 0; i < frame.size(); ++i) {
        QByteArray wrong = frame;
        wrong[i] = static_cast<char>(wrong.at(i) + 1);
        EXPECT_FALSE(decodeCommand(wrong, Framing::Binary)) << i;
        EXPECT_FALSE(decodeCommand(frame.left(i), Framing::Binary)) << i;
    }
}

TEST(DeviceCodec, WritesReplies)
{
    Head reply;
    reply.head = 0x01;
    reply.addr = 0x02;
    reply.cmd = 0x03;
    reply.dat1 = 0x04;
    reply.dat2 = 0x05;
    reply.dat3 = 0x06;
    reply.dat4 = 0x07;
    EXPECT_EQ(encodeReply(reply, Framing::Text), QByteArray("<F010203040506071c>"));
    reply.cmd = 0xff;
    EXPECT_EQ(encodeReply(reply, Framing::Text), QByteArray("<F0102ff0405060718>"));

    Head binary = reply;
    binary.lead = 0x1234;
    binary.cmd = 0x06;
    binary.dat1 = 0x07;
    binary.dat2 = 0x08;
    binary.dat3 = 0x09;
    binary.dat4 = 0x0a;
    binary.aux3 = 0x03;
    binary.aux4 = 0x0004;
    binary.aux5 = 0x0005;
    binary.blockLength = 0x0102;
    EXPECT_EQ(encodeReply(binary, Framing::Binary).toHex(),
              QByteArray("f11f0203000400050102060708090a49"));
}

} // namespace
