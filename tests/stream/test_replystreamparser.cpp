// SPDX-License-Identifier: MIT
#include "biz_cmdswork.h"
#include "core_serialport.h"
#include "eventually.h"
#include "hostqueue.h"
#include "messagecapture.h"
#include "parserloop.h"
#include "processstate.h"
#include "recordequality.h"
#include "replybytes.h"
#include "utility_manage.h"

#include <gtest/gtest.h>

#include <chrono>
#include <vector>

namespace
{

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr int frameLength = 19;
constexpr unsigned short peekSize = 1024;
constexpr auto deviceType = static_cast<model_GlobalEnum::DeviceType>(0x4711);

QString quoted(const char* text, const QByteArray& frame)
{
    return QStringLiteral("\"%1%2\"").arg(QLatin1String(text), QLatin1String(frame));
}

} // namespace

class ReplyStreamParserTest : public ::testing::Test
{
protected:
    ReplyStreamParserTest()
    {
        hostqueue::clear();
        parser.setDeviceType(deviceType);
    }
    ~ReplyStreamParserTest() override
    {
        Utility_Manage::setDeviceType(model_GlobalEnum::DeviceUnknown);
    }

    QByteArray remaining() { return parser.getBuffData(0xffff); }

    // As the loop does it.
    bool checkHead() { return parser.checkCMD(parser.getBuffData(peekSize)); }

    static model_Protocoldata onlyRecord()
    {
        const auto records = hostqueue::records();
        EXPECT_EQ(records.size(), 1U);
        return records.empty() ? model_Protocoldata() : records.front();
    }

    Core_SerialPort parser;
    MessageCapture capture;
};

TEST_F(ReplyStreamParserTest, PeekingCopiesAndTakingConsumes)
{
    parser.appendBuffData("abc");
    parser.appendBuffData("def");
    EXPECT_EQ(parser.getBuffData(4), QByteArray("abcd"));
    EXPECT_EQ(parser.getBuffData(100), QByteArray("abcdef"));
    EXPECT_EQ(parser.getBuffData(0), QByteArray());
    EXPECT_EQ(parser.takeBuffData(2), QByteArray("ab"));
    EXPECT_EQ(parser.takeBuffData(0), QByteArray());
    EXPECT_EQ(parser.takeBuffData(0xffff), QByteArray("cdef"));
    EXPECT_EQ(parser.takeBuffData(1), QByteArray());
}

TEST_F(ReplyStreamParserTest, WithoutAMarkWhatWasInspectedIsDropped)
{
    parser.appendBuffData("garbage and more");
    EXPECT_FALSE(parser.isFindStdCmdPreFlag("garbage"));
    EXPECT_EQ(remaining(), QByteArray(" and more"));
    EXPECT_FALSE(parser.isFindStdCmdPreFlag(QByteArray()));
    EXPECT_EQ(remaining(), QByteArray(" and more"));
}

TEST_F(ReplyStreamParserTest, TheSizeOfWhatWasInspectedHas16Bits)
{
    parser.appendBuffData(QByteArray(10, 'x'));
    EXPECT_FALSE(parser.isFindStdCmdPreFlag(QByteArray(65536, 'x')));
    EXPECT_EQ(remaining().size(), 10);
    EXPECT_FALSE(parser.isFindStdCmdPreFlag(QByteArray(65536 + 3, 'x')));
    EXPECT_EQ(remaining().size(), 7);
    EXPECT_FALSE(parser.isFindStdCmdPreFlag(QByteArray(65536 + 2, 'x') + "<F"));
    EXPECT_EQ(remaining().size(), 7 - 2 - 1); // one more for the mark that isn't there
}

TEST_F(ReplyStreamParserTest, BytesBeforeTheMarkAreDropped)
{
    parser.appendBuffData("ab<Fcd");
    EXPECT_TRUE(parser.isFindStdCmdPreFlag(parser.getBuffData(peekSize)));
    EXPECT_EQ(remaining(), QByteArray("<Fcd"));
}

TEST_F(ReplyStreamParserTest, ALoneMarkIsKept)
{
    parser.appendBuffData("ab<");
    EXPECT_FALSE(parser.isFindStdCmdPreFlag(parser.getBuffData(peekSize)));
    EXPECT_EQ(remaining(), QByteArray("<"));
    parser.appendBuffData("F");
    EXPECT_TRUE(parser.isFindStdCmdPreFlag(parser.getBuffData(peekSize)));
}

TEST_F(ReplyStreamParserTest, AMarkWithoutItsSecondByteCostsOneByte)
{
    parser.appendBuffData("xx<A<F");
    EXPECT_FALSE(parser.isFindStdCmdPreFlag(parser.getBuffData(peekSize)));
    EXPECT_EQ(remaining(), QByteArray("A<F"));
}

TEST_F(ReplyStreamParserTest, TheSecondByteIsReadFromTheBuffer)
{
    parser.appendBuffData("<F");
    EXPECT_TRUE(parser.isFindStdCmdPreFlag("<")); // the rest came after the copy was made
}

TEST_F(ReplyStreamParserTest, FewerThan19BytesAreNoReply)
{
    const QByteArray reply = replybytes::text(0x10, 0x20);
    parser.appendBuffData(reply);
    EXPECT_FALSE(parser.checkCMD(reply.left(frameLength - 1)));
    EXPECT_EQ(remaining(), reply);
    EXPECT_EQ(hostqueue::size(), 0U);
}

TEST_F(ReplyStreamParserTest, AFrameThatDoesNotDecodeCostsOneByte)
{
    QByteArray reply = replybytes::text(0x10, 0x20);
    reply[17] = reply[17] == '0' ? '1' : '0';
    parser.appendBuffData(reply);
    EXPECT_FALSE(checkHead());
    EXPECT_EQ(remaining(), reply.mid(1));
    EXPECT_EQ(hostqueue::size(), 0U);
    EXPECT_EQ(capture.lines(),
              QStringList(quoted("Core_SerialPort::getArrayData   dataStr==", reply.mid(2, 16))));
    EXPECT_TRUE(hostqueue::logLines().isEmpty());
}

TEST_F(ReplyStreamParserTest, NeitherMarksNorLengthAreDecoded)
{
    model_Protocoldata record;
    record.strKey = QStringLiteral("kept only on failure");
    record.HEAD = 9;
    EXPECT_TRUE(parser.getArrayData(QByteArray(), &record));
    EXPECT_TRUE(sameRecord(record, model_Protocoldata()));
    const QByteArray reply = replybytes::text(0x10, 0xAB).toUpper();
    EXPECT_TRUE(parser.getArrayData("??" + reply.mid(2, 16), &record));
    EXPECT_EQ(record.DAT1, 0xAB);
    record.strKey = QStringLiteral("kept");
    EXPECT_FALSE(parser.getArrayData("<F01", &record));
    EXPECT_EQ(record.strKey, QStringLiteral("kept"));
    EXPECT_EQ(record.DAT1, 0xAB);
}

TEST_F(ReplyStreamParserTest, AStandardReplyIsStampedAndPosted)
{
    const QByteArray reply = replybytes::text(0x10, 0x20, 0x30, 0x40);
    parser.appendBuffData(reply + "tail");
    EXPECT_TRUE(checkHead());
    ASSERT_TRUE(eventually([] { return hostqueue::size() == 1; }));
    model_Protocoldata expected;
    expected.HEAD = 0x5a;
    expected.ADDR = 1;
    expected.CMD = 0x10;
    expected.DAT1 = 0x20;
    expected.DAT2 = 7;
    expected.DAT3 = 0x30;
    expected.DAT4 = 0x40;
    expected.CHKSUM = (0x5a + 1 + 0x10 + 0x20 + 7 + 0x30 + 0x40) & 0xff;
    expected.bKeyFlag = 1;
    expected.featureCode = deviceType;
    model_Protocoldata queued = onlyRecord();
    EXPECT_TRUE(queued.strKey2.isEmpty()); // no port was ever named
    queued.strKey2 = expected.strKey2;
    EXPECT_TRUE(sameRecord(queued, expected));
    EXPECT_TRUE(hostqueue::flag());
    EXPECT_EQ(remaining(), QByteArray("tail"));
    EXPECT_EQ(capture.lines(), QStringList(quoted("Recv data:", reply)));
}

TEST_F(ReplyStreamParserTest, TheImmediateKindIsQueuedAtOnceAndSilent)
{
    parser.appendBuffData(replybytes::text(0x79, 0x0C, 5, 0));
    EXPECT_TRUE(checkHead());
    EXPECT_EQ(onlyRecord().bKeyFlag, 1);
    EXPECT_EQ(onlyRecord().featureCode, deviceType);
    EXPECT_TRUE(hostqueue::flag());
    EXPECT_TRUE(capture.lines().isEmpty());
}

TEST_F(ReplyStreamParserTest, TheFrameTextEndsAtAZeroByte)
{
    QByteArray reply = replybytes::text(0x10, 0x20);
    reply[18] = '\0';
    parser.appendBuffData(reply);
    EXPECT_TRUE(checkHead()); // the end mark is the loop's affair
    EXPECT_EQ(capture.lines(), QStringList(quoted("Recv data:", reply.left(18))));
}

namespace
{

std::vector<std::size_t> queuedAtEachLine;

void noteQueue(QtMsgType /*type*/, const QMessageLogContext& /*context*/, const QString& /*text*/)
{
    queuedAtEachLine.push_back(hostqueue::size());
}

} // namespace

TEST_F(ReplyStreamParserTest, AStandardReplyIsShownBeforeItIsQueuedAndABlockReplyBehind)
{
    qInstallMessageHandler(noteQueue);
    parser.appendBuffData(replybytes::text(0x10, 0x20));
    EXPECT_TRUE(checkHead());
    EXPECT_EQ(queuedAtEachLine, std::vector<std::size_t>({0}));
    parser.appendBuffData(replybytes::text(0xF1, 0x12, 5, 0) + replybytes::block(5));
    EXPECT_TRUE(checkHead());
    EXPECT_EQ(queuedAtEachLine, std::vector<std::size_t>({0, 2}));
}

TEST_F(ReplyStreamParserTest, FrameTextsAreUtf8)
{
    QByteArray reply = replybytes::text(0x10, 0x20);
    reply[0] = '\xc3';
    reply[1] = '\xa9';
    parser.appendBuffData(reply);
    EXPECT_TRUE(checkHead());
    EXPECT_EQ(capture.lines(),
              QStringList(
                  QStringLiteral("\"Recv data:\u00e9%1\"").arg(QString::fromLatin1(reply.mid(2)))));
}

TEST_F(ReplyStreamParserTest, TextsAreMadeOfBytes)
{
    EXPECT_EQ(parser.changeData(QByteArray("\xab\x00\x09", 3)), QByteArray("<Tab0009>"));
    EXPECT_EQ(parser.changeData(QByteArray()), QByteArray("<T>"));
}

TEST_F(ReplyStreamParserTest, DecodingIntoNothingFails)
{
    EXPECT_FALSE(parser.getArrayData(replybytes::text(0x10, 0x20), nullptr));
}

TEST_F(ReplyStreamParserTest, BlockAndImmediateRepliesWaitForTheHost)
{
    for (const QByteArray& reply : {replybytes::text(0x79, 0x0C),
                                    replybytes::text(0xF1, 0x12, 5, 0) + replybytes::block(5)}) {
        hostqueue::clear();
        parser.appendBuffData(reply);
        EXPECT_TRUE(waitsForTheHost([this] { return checkHead(); }));
        EXPECT_EQ(hostqueue::size(), 1U);
    }
}

struct BlockKind {
    int command;
    int subCode;
    int low;
    int high;
    int length;
    int globalType;
};

class ReplyStreamParserBlocks : public ReplyStreamParserTest,
                                public ::testing::WithParamInterface<BlockKind>
{
protected:
    ReplyStreamParserBlocks()
    {
        Utility_Manage::setDeviceType(
            static_cast<model_GlobalEnum::DeviceType>(GetParam().globalType));
    }

    static QByteArray frame()
    {
        const BlockKind& kind = GetParam();
        return replybytes::text(kind.command, kind.subCode, kind.low, kind.high);
    }
};

TEST_P(ReplyStreamParserBlocks, CompleteBlockIsQueuedWhole)
{
    const QByteArray block =
        GetParam().length == 0 ? QByteArray() : replybytes::block(GetParam().length);
    parser.appendBuffData(frame() + block + "tail");
    EXPECT_TRUE(checkHead());
    const model_Protocoldata record = onlyRecord();
    EXPECT_EQ(record.arryDatablock, block);
    EXPECT_EQ(record.CMD, GetParam().command);
    EXPECT_EQ(record.DAT1, GetParam().subCode);
    EXPECT_EQ(record.bKeyFlag, 1);
    EXPECT_EQ(record.featureCode, deviceType);
    EXPECT_TRUE(hostqueue::flag());
    EXPECT_EQ(remaining(), QByteArray("tail"));
    EXPECT_EQ(capture.lines(), QStringList(quoted("Recv data:", frame())));
}

TEST_P(ReplyStreamParserBlocks, CorruptBlockIsDroppedWithItsFrame)
{
    if (GetParam().length == 0) {
        return; // nothing that could be corrupt
    }
    QByteArray block = replybytes::block(GetParam().length);
    block[block.size() - 1] = static_cast<char>(block.at(block.size() - 1) + 1);
    parser.appendBuffData(frame() + block + "tail");
    EXPECT_FALSE(checkHead());
    EXPECT_EQ(hostqueue::size(), 0U);
    EXPECT_FALSE(hostqueue::flag());
    EXPECT_EQ(remaining(), QByteArray("tail"));
    EXPECT_EQ(capture.lines(), QStringList(quoted("Recv data:", frame()) +
                                           QStringLiteral(" \"CheckBlock default:\"")));
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, ReplyStreamParserBlocks,
    ::testing::Values(
        BlockKind{0x79, 0x00, 0, 0, 0, 0}, BlockKind{0x79, 0x09, 1, 0, 1, 0},
        BlockKind{0x79, 0x0D, 0, 4, 1024, 0}, BlockKind{0xF1, 0x40, 1, 4, 1025, 0},
        BlockKind{0xF1, 0x40, 0, 0, 0, 0}, BlockKind{0xF1, 0x12, 5, 1, 261, 0},
        BlockKind{0xF1, 0x00, 0, 0x80, 32768, 0}, BlockKind{0xF1, 0xFF, 0xFF, 0xFF, 65535, 0},
        BlockKind{0x8E, 0x27, 16, 0, 16, 0}, BlockKind{0x8B, 0x05, 1, 1, 145, 0},
        BlockKind{0x8B, 0x09, 0, 0, 129, 0}, BlockKind{0x77, 0x23, 0, 0, 129, 0},
        BlockKind{0x69, 0x09, 0, 0, 129, 0}, BlockKind{0x69, 0x09, 0, 0, 33, 0x290200},
        BlockKind{0x77, 0x23, 0, 0, 129, 0x290200}, BlockKind{0x8B, 0x09, 0, 0, 129, 0x290200}),
    [](const auto& tested) {
        return QByteArray(QByteArray::number(tested.param.command, 16) + '_' +
                          QByteArray::number(tested.param.subCode, 16) + "_takes_" +
                          QByteArray::number(tested.param.length) +
                          (tested.param.globalType == 0 ? "" : "_on_290200"))
            .toStdString();
    });

TEST_F(ReplyStreamParserTest, NeighboursOfTheBlockKindsAreStandard)
{
    int expected = 0;
    for (const auto& [command, subCode] :
         {std::pair(0x8E, 0x26), std::pair(0x8B, 0x04), std::pair(0x77, 0x22),
          std::pair(0x69, 0x0A), std::pair(0x78, 0x0C), std::pair(0xF0, 0x40)}) {
        parser.appendBuffData(replybytes::text(command, subCode, 9, 0));
        EXPECT_TRUE(checkHead());
        ++expected;
    }
    EXPECT_TRUE(eventually([expected] { return hostqueue::size() == std::size_t(expected); }));
    EXPECT_TRUE(remaining().isEmpty());
}

TEST_F(ReplyStreamParserTest, ABlockThatNeverComesCosts600MsAndTheFrame)
{
    const QByteArray reply = replybytes::text(0x8B, 0x05);
    parser.appendBuffData(reply + QByteArray(144, 'x'));
    const auto start = Clock::now();
    EXPECT_FALSE(checkHead());
    EXPECT_GE(Clock::now() - start, milliseconds(600));
    EXPECT_EQ(remaining(), QByteArray(144, 'x'));
    EXPECT_EQ(hostqueue::size(), 0U);
    EXPECT_EQ(capture.lines(), QStringList(quoted("Recv data:", reply) +
                                           QStringLiteral(" \"CheckBlock default:\"")));
}

TEST_F(ReplyStreamParserTest, ABlockMayComeBehindItsFrame)
{
    const QByteArray block = replybytes::block(145);
    const QByteArray reply = replybytes::text(0x8B, 0x05);
    // A device that a busy machine stops for longer than the wait is late: then once more.
    bool isTaken = false;
    for (int tries = 0; tries < 10 && !isTaken; ++tries) {
        parser.takeBuffData(0xffff);
        parser.appendBuffData(reply);
        std::thread device([&] {
            EXPECT_TRUE(eventually([this] { return remaining().isEmpty(); }));
            parser.appendBuffData(block.left(100));
            parser.appendBuffData(block.mid(100));
        });
        isTaken = checkHead();
        device.join();
    }
    EXPECT_TRUE(isTaken);
    EXPECT_EQ(onlyRecord().arryDatablock, block);
}

TEST_F(ReplyStreamParserTest, CheckBlockReadsChecksAndStamps)
{
    model_Protocoldata record;
    record.CMD = 0x42;
    record.arryDatablock = "old";
    EXPECT_TRUE(parser.checkBlock(record, 0));
    EXPECT_EQ(hostqueue::records().at(0).arryDatablock, QByteArray());
    EXPECT_EQ(hostqueue::records().at(0).bKeyFlag, 1);
    parser.appendBuffData(QByteArray(1, '\0'));
    EXPECT_TRUE(parser.checkBlock(record, 1)); // the sum of nothing
    parser.appendBuffData(QByteArray(1, '\1'));
    EXPECT_FALSE(parser.checkBlock(record, 1));
    EXPECT_EQ(hostqueue::size(), 2U);
    EXPECT_TRUE(remaining().isEmpty());
    EXPECT_EQ(record.CMD, 0x42); // taken by value
    EXPECT_EQ(record.bKeyFlag, 0);
    EXPECT_TRUE(capture.lines().isEmpty());
}

TEST_F(ReplyStreamParserTest, AddToReceivedQueueAppendsAndRaisesTheFlag)
{
    model_Protocoldata record;
    record.ADDR = 3;
    parser.addToReceivedQueue(record);
    EXPECT_TRUE(sameRecord(onlyRecord(), record));
    EXPECT_TRUE(hostqueue::flag());
    parser.setRetFlagStatus(false);
    EXPECT_FALSE(hostqueue::flag());
    parser.setRetFlagStatus(true);
    EXPECT_TRUE(hostqueue::flag());
}

TEST_F(ReplyStreamParserTest, StandardRepliesNeverWaitForTheHost)
{
    constexpr int replies = 10000;
    const int threadsBefore = processstate::threads();
    {
        const std::lock_guard hostIsBusy(biz_CMDSWork::receiveHexCmdlock);
        for (int i = 0; i < replies; ++i) {
            parser.appendBuffData(replybytes::text(0x10, i & 0xff, i >> 8, 0));
            ASSERT_TRUE(checkHead());
        }
        EXPECT_LE(processstate::threads(), threadsBefore + 2);
    }
    ASSERT_TRUE(eventually([] { return hostqueue::size() == replies; }));
    const auto records = hostqueue::records();
    for (int i = 0; i < replies; ++i) {
        ASSERT_EQ(records[std::size_t(i)].DAT1 + 256 * records[std::size_t(i)].DAT3, i);
    }
}

TEST_F(ReplyStreamParserTest, LoopNeedsThe19thByte)
{
    const QByteArray reply = replybytes::text(0x79, 0x0C);
    const ParserLoop loop(parser);
    parser.appendBuffData(reply.left(18));
    std::this_thread::sleep_for(milliseconds(30)); // ten passes; only a wrong parser needs fewer
    EXPECT_EQ(remaining(), reply.left(18));
    parser.appendBuffData(reply.mid(18));
    EXPECT_TRUE(eventually([] { return hostqueue::size() == 1; }));
    EXPECT_TRUE(eventually([this] { return remaining().isEmpty(); }));
}

TEST_F(ReplyStreamParserTest, LoopFindsRepliesInAnySoup)
{
    const QByteArray immediate = replybytes::text(0x79, 0x0C);
    QByteArray noEndMark = immediate;
    noEndMark[18] = '<';
    QByteArray corrupt = immediate;
    corrupt[17] = corrupt[17] == '0' ? '1' : '0';
    QByteArray soup = "xy" + immediate;           // two stray bytes
    soup += "<" + immediate;                      // a lone mark
    soup += "<A" + immediate;                     // a mark of something else
    soup += "<F" + immediate;                     // half a frame
    soup += noEndMark.left(18) + "x" + immediate; // no end mark
    soup += noEndMark.left(18) + immediate;       // its end is the next one's start
    soup += corrupt + immediate;                  // a wrong checksum
    soup += QByteArray(5000, '\0') + immediate;   // longer than a look
    soup += QByteArray(1023, ' ') + immediate;    // the mark is the last byte of a look
    soup += immediate.left(10);
    parser.appendBuffData(soup);
    const ParserLoop loop(parser);
    EXPECT_TRUE(eventually([] { return hostqueue::size() == 9; }));
    EXPECT_TRUE(eventually([&] { return remaining() == immediate.left(10); }));
}

TEST_F(ReplyStreamParserTest, LoopDropsOneByteOfAFrameWithoutItsEndMark)
{
    QByteArray reply = replybytes::text(0x79, 0x0C);
    reply[18] = '?';
    parser.appendBuffData(reply);
    const ParserLoop loop(parser);
    EXPECT_TRUE(eventually([&] { return remaining().size() < reply.size(); }));
    EXPECT_EQ(remaining(), reply.mid(1)); // too short now for another pass
}

TEST_F(ReplyStreamParserTest, LoopTakesOneReplyAPass)
{
    constexpr int replies = 20;
    for (int i = 0; i < replies; ++i) {
        parser.appendBuffData(replybytes::text(0x79, 0x0C));
    }
    const auto start = Clock::now();
    const ParserLoop loop(parser);
    EXPECT_TRUE(eventually([] { return hostqueue::size() == replies; }));
    EXPECT_GE(Clock::now() - start, replies * milliseconds(3));
}

TEST_F(ReplyStreamParserTest, LoopSkipsABlockThatComesTooLate)
{
    const QByteArray failed =
        quoted("Recv data:", replybytes::text(0x77, 0x23)).toLatin1() + " \"CheckBlock default:\"";
    const ParserLoop loop(parser);
    parser.appendBuffData(replybytes::text(0x77, 0x23));
    ASSERT_TRUE(eventually([&] { return capture.count(QString::fromLatin1(failed)) == 1; }));
    parser.appendBuffData(replybytes::block(129) + replybytes::text(0x79, 0x0C));
    EXPECT_TRUE(eventually([] { return hostqueue::size() == 1; }));
    EXPECT_EQ(onlyRecord().CMD, 0x79);
}

TEST_F(ReplyStreamParserTest, LoopEndsWhenItsFlagIsClear)
{
    parser.setDealFlag(false);
    parser.td_dealDataFunc(); // returns at once
    parser.appendBuffData(replybytes::text(0x79, 0x0C));
    {
        ParserLoop loop(parser);
        EXPECT_TRUE(eventually([] { return hostqueue::size() == 1; }));
        loop.stop();
    }
    parser.appendBuffData(replybytes::text(0x79, 0x0C));
    ParserLoop again(parser);
    EXPECT_TRUE(eventually([] { return hostqueue::size() == 2; }));
}
