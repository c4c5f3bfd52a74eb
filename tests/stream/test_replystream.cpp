// SPDX-License-Identifier: MIT
#include "binaryreplyformat.h"
#include "biz_cmdswork.h"
#include "eventlog.h"
#include "eventually.h"
#include "hostqueue.h"
#include "parserloop.h"
#include "replybytes.h"
#include "replyqueue.h"
#include "textreplyformat.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <optional>
#include <thread>

namespace
{

constexpr int inspected = 1024;
constexpr TextReplyFormat text{TextReplyValues()};
constexpr BinaryReplyFormat binary;

QByteArray binaryReply()
{
    return replybytes::head(1) + QByteArray(1, '\0');
}

// Brings a byte in each pause.
class SlowlyFilledStream : public ReplyStream
{
public:
    QByteArray coming;

private:
    void sleep(std::chrono::milliseconds /*duration*/) override
    {
        received.append(coming.left(1));
        coming.remove(0, 1);
    }
};

class ReplyStreamPass : public ::testing::TestWithParam<bool>
{
protected:
    ReplyStreamPass() { hostqueue::clear(); }

    qsizetype left() { return stream->received.size(); }

    const QByteArray reply = GetParam() ? binaryReply() : replybytes::text(0x79, 0x0C);
    const std::shared_ptr<ReplyStream> stream = std::make_shared<ReplyStream>();
    ReplyStreamParser parser{GetParam() ? static_cast<const ReplyFormat&>(binary) : text, stream};
};

} // namespace

TEST_P(ReplyStreamPass, InspectsTheFirst1024BytesOnly)
{
    parser.appendBuffData(QByteArray(inspected + 100, 'x') + reply);
    parser.pass();
    EXPECT_EQ(left(), 100 + reply.size());
    parser.pass();
    EXPECT_EQ(left(), 0);
    EXPECT_EQ(hostqueue::size(), 1U);
}

TEST_P(ReplyStreamPass, FindsAReplyThatBeginsWithTheLastInspectedByte)
{
    // The second line's mark has two bytes, and half a mark is dropped with what was inspected.
    const int before = GetParam() ? inspected - 2 : inspected - 1;
    parser.appendBuffData(QByteArray(before, 'x') + reply);
    parser.pass();
    EXPECT_EQ(left(), 0);
    EXPECT_EQ(hostqueue::size(), 1U);
}

TEST_P(ReplyStreamPass, WaitsWhileTheHostsRecordsAreAtTheirBound)
{
    model_Protocoldata record;
    record.arryDatablock = QByteArray(ReceiveBuffer::limit, 'b');
    ASSERT_TRUE(replyqueue::start());
    std::optional<ParserLoop> loop;
    {
        const std::lock_guard host(biz_CMDSWork::receiveHexCmdlock);
        replyqueue::post(record, LinkTap());
        parser.appendBuffData(reply);
        loop.emplace(parser); // behind the post: a pass that has begun does not look any more
        EXPECT_FALSE(eventually([this] { return left() == 0; }, std::chrono::milliseconds(300)));
    }
    EXPECT_TRUE(eventually([] { return hostqueue::size() == 2; }));
}

TEST_P(ReplyStreamPass, ABlockMayComeInPieces)
{
    constexpr int length = 145;
    const QByteArray head = GetParam() ? replybytes::head(length) : replybytes::text(0x8B, 0x05);
    const auto slow = std::make_shared<SlowlyFilledStream>();
    ReplyStreamParser slowParser(GetParam() ? static_cast<const ReplyFormat&>(binary) : text, slow);
    slow->coming = replybytes::block(length);
    slowParser.appendBuffData(head);
    EXPECT_TRUE(slowParser.checkCMD(head));
    ASSERT_EQ(hostqueue::size(), 1U);
    EXPECT_EQ(hostqueue::records().front().arryDatablock,
              replybytes::block(length).left(GetParam() ? length - 1 : length));
}

TEST(BinaryReplyStreamPass, AMarkAcrossTheEndOfWhatIsInspectedIsHalfOne)
{
    hostqueue::clear();
    const QByteArray reply = binaryReply();
    const auto stream = std::make_shared<ReplyStream>();
    ReplyStreamParser parser(binary, stream);
    parser.appendBuffData(QByteArray(inspected - 1, 'x') + reply);
    parser.pass();
    EXPECT_EQ(stream->received.size(), reply.size() - 1);
    parser.pass();
    EXPECT_EQ(stream->received.size(), 0);
    EXPECT_EQ(hostqueue::size(), 0U);
}

TEST(ReplyStream, TellsOfWhatItSkipsButNotOfNothing)
{
    const auto tap = std::make_shared<LinkTap>();
    const auto log = std::make_shared<EventLog>();
    tap->add(log);
    ReplyStream stream(tap);
    stream.skip(0);
    EXPECT_EQ(log->size(), 0U);
    stream.received.append("ab");
    stream.skip(1);
    ASSERT_EQ(log->all(EventLog::Kind::Skipped).size(), 1U);
    const LinkEvent skipped = log->all(EventLog::Kind::Skipped).front().event;
    EXPECT_EQ(skipped.bytes, "a");
    EXPECT_EQ(skipped.port, 0);
    tap->refuse(EventLog::Check::Checksum, "b");
    const auto refused = log->all(EventLog::Kind::Refused, EventLog::Check::Checksum);
    ASSERT_EQ(refused.size(), 1U);
    EXPECT_EQ(refused.front().event.port, 0);
}

TEST(ReplyStream, ItsNameMayBeSetBesideAParser)
{
    ReplyStream stream;
    std::atomic<bool> done{false};
    std::thread host([&] {
        for (int i = 0; !done; ++i) {
            stream.setOriginName(QString(20, QLatin1Char(static_cast<char>('a' + i % 26))));
        }
    });
    EXPECT_TRUE(eventually([&] { return !stream.originName().isEmpty(); }));
    int torn = 0;
    for (int i = 0; i < 100'000; ++i) {
        const QString name = stream.originName();
        torn += name == QString(20, name.at(0)) ? 0 : 1;
    }
    done = true;
    host.join();
    EXPECT_EQ(torn, 0);
}

INSTANTIATE_TEST_SUITE_P(Text, ReplyStreamPass, ::testing::Values(false));
INSTANTIATE_TEST_SUITE_P(Binary, ReplyStreamPass, ::testing::Values(true));
