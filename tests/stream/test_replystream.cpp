// SPDX-License-Identifier: MIT
#include "binaryreplystream.h"
#include "biz_cmdswork.h"
#include "eventually.h"
#include "hostqueue.h"
#include "replybytes.h"
#include "replyqueue.h"
#include "textreplystream.h"

#include <gtest/gtest.h>

#include <memory>

namespace
{

constexpr int inspected = 1024;
constexpr TextReplyValues values{
    std::chrono::milliseconds(3), nullptr, true, 1, 1, true, "", "", "", ""};

struct Kind {
    std::shared_ptr<ReplyStream> stream;
    QByteArray reply; // without a block
};

class ReplyStreamPass : public ::testing::TestWithParam<bool>
{
protected:
    ReplyStreamPass()
    {
        hostqueue::clear();
        if (GetParam()) {
            kind = {std::make_shared<BinaryReplyStream>(),
                    replybytes::head(1) + QByteArray(1, '\0')};
        } else {
            kind = {std::make_shared<TextReplyStream>(values), replybytes::text(0x79, 0x0C)};
        }
    }

    void feed(const QByteArray& bytes) { kind.stream->received().append(bytes); }
    int left() { return kind.stream->received().size(); }

    Kind kind;
};

} // namespace

TEST_P(ReplyStreamPass, InspectsTheFirst1024BytesOnly)
{
    feed(QByteArray(inspected + 100, 'x') + kind.reply);
    kind.stream->pass();
    EXPECT_EQ(left(), 100 + kind.reply.size());
    kind.stream->pass();
    EXPECT_EQ(left(), 0);
    EXPECT_EQ(hostqueue::size(), 1U);
}

TEST_P(ReplyStreamPass, FindsAReplyThatBeginsWithTheLastInspectedByte)
{
    // The second line's mark has two bytes, and half a mark is dropped with what was inspected.
    const int before = GetParam() ? inspected - 2 : inspected - 1;
    feed(QByteArray(before, 'x') + kind.reply);
    kind.stream->pass();
    EXPECT_EQ(left(), 0);
    EXPECT_EQ(hostqueue::size(), 1U);
}

TEST_P(ReplyStreamPass, WaitsWhileTheHostsRecordsAreAtTheirBound)
{
    model_Protocoldata record;
    record.arryDatablock = QByteArray(ReceiveBuffer::limit, 'b');
    ASSERT_TRUE(ReplyStream::startParser(kind.stream));
    {
        const std::lock_guard host(biz_CMDSWork::receiveHexCmdlock);
        replyqueue::post(record);
        feed(kind.reply);
        EXPECT_FALSE(eventually([this] { return left() == 0; }, std::chrono::milliseconds(300)));
    }
    EXPECT_TRUE(eventually([] { return hostqueue::size() == 2; }));
    kind.stream->setDealFlag(false);
    EXPECT_TRUE(eventually([this] { return !kind.stream->hasParser(); }));
}

TEST(BinaryReplyStreamPass, AMarkAcrossTheEndOfWhatIsInspectedIsHalfOne)
{
    hostqueue::clear();
    const QByteArray reply = replybytes::head(1) + QByteArray(1, '\0');
    BinaryReplyStream stream;
    stream.received().append(QByteArray(inspected - 1, 'x') + reply);
    stream.pass();
    EXPECT_EQ(stream.received().size(), reply.size() - 1);
    stream.pass();
    EXPECT_EQ(stream.received().size(), 0);
    EXPECT_EQ(hostqueue::size(), 0U);
}

INSTANTIATE_TEST_SUITE_P(Text, ReplyStreamPass, ::testing::Values(false));
INSTANTIATE_TEST_SUITE_P(Binary, ReplyStreamPass, ::testing::Values(true));
