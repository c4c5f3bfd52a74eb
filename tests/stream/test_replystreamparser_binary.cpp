// SPDX-License-Identifier: MIT
#include "eventually.h"
#include "hostqueue.h"
#include "messagecapture.h"
#include "parserloop.h"
#include "recordequality.h"
#include "replybytes.h"
#include "vela_core_serialport.h"

#include <gtest/gtest.h>

#include <chrono>

namespace
{

constexpr unsigned short peekSize = 1024;
constexpr auto deviceType = static_cast<model_GlobalEnum::DeviceType>(0x4711);
const QByteArray mark("\xF1\x1F", 2);

model_Protocoldata decodedHead(int length)
{
    model_Protocoldata record;
    record.aux2 = 0xf11f;
    record.ADDR = 0x01;
    record.aux3 = 0x33;
    record.aux4 = 0x4455;
    record.aux5 = 0x6677;
    record.aux6 = static_cast<quint16>(length);
    record.CMD = 0x31;
    record.DAT1 = 0x02;
    record.DAT2 = 0x0a;
    record.DAT3 = 0x0b;
    record.DAT4 = 0x0c;
    record.CHKSUM = static_cast<quint8>(replybytes::head(length).at(15));
    return record;
}

} // namespace

class BinaryReplyTest : public ::testing::Test
{
protected:
    BinaryReplyTest()
    {
        hostqueue::clear();
        parser.setDeviceType(deviceType);
    }

    QByteArray remaining() { return parser.getBuffData(0xffff); }
    bool checkHead() { return parser.checkCMD(parser.getBuffData(peekSize)); }

    static void expectOnly(const model_Protocoldata& expected)
    {
        auto records = hostqueue::records();
        ASSERT_EQ(records.size(), 1U);
        records.front().strKey2 = expected.strKey2; // empty either way: no port was named
        EXPECT_TRUE(sameRecord(records.front(), expected));
        EXPECT_TRUE(hostqueue::flag());
    }

    static model_Protocoldata stamped(model_Protocoldata record, const QByteArray& block)
    {
        record.bKeyFlag = 1;
        record.featureCode = deviceType;
        record.arryDatablock = block;
        return record;
    }

    Vela_Core_SerialPort parser;
    MessageCapture capture;
};

TEST_F(BinaryReplyTest, BytesBeforeTheMarkAreDropped)
{
    parser.appendBuffData("\x1F\xF1garbage" + mark + "rest");
    EXPECT_TRUE(parser.isFindStdCmdPreFlag(parser.getBuffData(peekSize)));
    EXPECT_EQ(remaining(), mark + "rest");
}

TEST_F(BinaryReplyTest, WithoutAMarkWhatWasInspectedIsDropped)
{
    parser.appendBuffData("garbage and more");
    EXPECT_FALSE(parser.isFindStdCmdPreFlag("garbage"));
    EXPECT_EQ(remaining(), QByteArray(" and more"));
    EXPECT_FALSE(parser.isFindStdCmdPreFlag(QByteArray(65536 + 4, 'x')));
    EXPECT_EQ(remaining(), QByteArray(" more"));
}

TEST_F(BinaryReplyTest, HalfAMarkAtTheEndIsDroppedToo)
{
    parser.appendBuffData("garbage\xF1");
    EXPECT_FALSE(parser.isFindStdCmdPreFlag(parser.getBuffData(peekSize)));
    EXPECT_TRUE(remaining().isEmpty());
}

TEST_F(BinaryReplyTest, FewerThan16BytesAreNoReply)
{
    parser.appendBuffData(replybytes::head(0));
    EXPECT_FALSE(parser.checkCMD(replybytes::head(0).left(15)));
    EXPECT_EQ(remaining(), replybytes::head(0));
    EXPECT_EQ(hostqueue::size(), 0U);
}

TEST_F(BinaryReplyTest, AHeadThatDoesNotDecodeCostsOneByte)
{
    QByteArray head = replybytes::head(0);
    head[15] = static_cast<char>(head[15] + 1);
    parser.appendBuffData(head);
    EXPECT_FALSE(checkHead());
    EXPECT_EQ(remaining(), head.mid(1));
    EXPECT_EQ(hostqueue::size(), 0U);
    EXPECT_TRUE(capture.lines().isEmpty());
}

TEST_F(BinaryReplyTest, HeadsAreDecodedAsTheyCome)
{
    model_Protocoldata record;
    EXPECT_TRUE(parser.getArrayData(QByteArray(), &record));
    EXPECT_TRUE(sameRecord(record, model_Protocoldata()));
    EXPECT_TRUE(parser.getArrayData(replybytes::head(0x1234), &record));
    EXPECT_TRUE(sameRecord(record, decodedHead(0x1234)));
    EXPECT_FALSE(parser.getArrayData("\x01", &record));
    EXPECT_TRUE(sameRecord(record, decodedHead(0x1234)));
}

TEST_F(BinaryReplyTest, TheBlockIsQueuedWithoutItsChecksum)
{
    parser.appendBuffData(replybytes::head(3) + "\x01\x02\x03" + "tail");
    EXPECT_TRUE(checkHead());
    expectOnly(stamped(decodedHead(3), "\x01\x02"));
    EXPECT_EQ(remaining(), QByteArray("tail"));
    EXPECT_TRUE(capture.lines().isEmpty());
}

TEST_F(BinaryReplyTest, ACorruptBlockLeavesTheReplyAsDecoded)
{
    parser.appendBuffData(replybytes::head(3) + "\x01\x02\x04" + "tail");
    EXPECT_FALSE(checkHead());
    expectOnly(decodedHead(3));
    EXPECT_EQ(remaining(), QByteArray("tail"));
    EXPECT_TRUE(capture.lines().isEmpty());
}

TEST_F(BinaryReplyTest, ALateBlockLeavesTheReplyAsDecoded)
{
    parser.appendBuffData(replybytes::head(3) + "\x01\x02");
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(checkHead());
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(600));
    expectOnly(decodedHead(3));
    EXPECT_EQ(remaining(), QByteArray("\x01\x02"));
}

TEST_F(BinaryReplyTest, BlocksOfEveryLength)
{
    for (const int length : {0, 1, 2, 1024, 1025, 0x8000, 65535}) {
        hostqueue::clear();
        const QByteArray block = length == 0 ? QByteArray() : replybytes::block(length);
        parser.appendBuffData(replybytes::head(length) + block);
        EXPECT_TRUE(checkHead()) << length;
        expectOnly(stamped(decodedHead(length), block.left(qMax(length - 1, 0))));
        EXPECT_TRUE(remaining().isEmpty()) << length;
    }
}

TEST_F(BinaryReplyTest, EveryReplyWaitsForTheHost)
{
    QByteArray corrupt = replybytes::block(9);
    corrupt[8] = static_cast<char>(corrupt[8] + 1);
    for (const QByteArray& reply :
         {replybytes::head(0), replybytes::head(9) + replybytes::block(9)}) {
        hostqueue::clear();
        parser.appendBuffData(reply);
        EXPECT_TRUE(waitsForTheHost([this] { return checkHead(); }));
        EXPECT_EQ(hostqueue::size(), 1U);
    }
    hostqueue::clear();
    parser.appendBuffData(replybytes::head(9) + corrupt);
    EXPECT_TRUE(waitsForTheHost([this] { return !checkHead(); }));
    EXPECT_EQ(hostqueue::size(), 1U);
}

TEST_F(BinaryReplyTest, LoopPausesBetweenReplies)
{
    constexpr int replies = 30;
    parser.appendBuffData(replybytes::head(0).repeated(replies));
    const auto start = std::chrono::steady_clock::now();
    ParserLoop loop(parser);
    EXPECT_TRUE(eventually([] { return hostqueue::size() == replies; }));
    EXPECT_GE(std::chrono::steady_clock::now() - start, replies * std::chrono::milliseconds(3));
}

TEST_F(BinaryReplyTest, DecodingFailsInSilence)
{
    QByteArray head = replybytes::head(0);
    head[15] = static_cast<char>(head[15] + 1);
    model_Protocoldata record;
    record.CMD = 0x77;
    EXPECT_FALSE(parser.getArrayData(head, &record));
    EXPECT_EQ(record.CMD, 0x77);
    EXPECT_TRUE(capture.lines().isEmpty());
    EXPECT_TRUE(hostqueue::logLines().isEmpty());
}

TEST_F(BinaryReplyTest, CheckBlockTakesNothing)
{
    parser.appendBuffData(replybytes::block(3));
    EXPECT_FALSE(parser.checkBlock(decodedHead(3), 3));
    EXPECT_EQ(hostqueue::size(), 0U);
    EXPECT_EQ(remaining(), replybytes::block(3));
    EXPECT_TRUE(parser.checkBlock(decodedHead(0), 0));
    expectOnly(stamped(decodedHead(0), QByteArray()));
    EXPECT_EQ(remaining(), replybytes::block(3));
}

TEST_F(BinaryReplyTest, LoopNeedsThe16thByte)
{
    const QByteArray head = replybytes::head(0);
    const ParserLoop loop(parser);
    parser.appendBuffData(head.left(15));
    std::this_thread::sleep_for(std::chrono::milliseconds(30)); // ten passes
    EXPECT_EQ(remaining(), head.left(15));
    parser.appendBuffData(head.mid(15));
    EXPECT_TRUE(eventually([] { return hostqueue::size() == 1; }));
}

TEST_F(BinaryReplyTest, LoopFindsRepliesInAnySoup)
{
    QByteArray corrupt = replybytes::head(0);
    corrupt[5] = static_cast<char>(corrupt[5] + 1);
    const QByteArray reply = replybytes::head(5) + replybytes::block(5);
    parser.appendBuffData("xy" + reply + "\xF1" + reply + mark + reply + corrupt + reply +
                          QByteArray(5000, '\0') + reply + reply + replybytes::head(0).left(9));
    const ParserLoop loop(parser);
    EXPECT_TRUE(eventually([] { return hostqueue::size() == 6; }));
    EXPECT_TRUE(eventually([this] { return remaining().size() == 9; }));
    for (const auto& record : hostqueue::records()) {
        EXPECT_EQ(record.arryDatablock, replybytes::block(5).left(4));
    }
}
