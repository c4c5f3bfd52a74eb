// SPDX-License-Identifier: MIT
#pragma once

#include "blocksintime.h"
#include "eventlog.h"
#include "eventually.h"
#include "hostqueue.h"
#include "icorebase.h"
#include "messagecapture.h"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

/// What every link to a device must do, whatever the medium, and what every link must do whose
/// replies come as a stream of bytes. To run both over a stream link:
///
///     INSTANTIATE_TYPED_TEST_SUITE_P(Serial, LinkConformance, MyLink);
///     INSTANTIATE_TYPED_TEST_SUITE_P(Serial, StreamLinkConformance, MyLink);
///
/// MyLink is a transport with a scripted device at the other end:
///
/// | member                                        | meaning                               |
/// |-----------------------------------------------|---------------------------------------|
/// | bool open()                                   | through the transport                 |
/// | ICoreBase& transport()                        |                                       |
/// | void deliver(QByteArrayList)                  | the device sends these, each a reply, |
/// |                                               | a block, or any part of a stream      |
/// | QByteArray atDevice()                         | all that the device has received      |
/// | static QByteArray command(model_Protocoldata) | the wire bytes of a command           |
/// | static QByteArray reply(int tag)              | a complete reply, tag 1 to 127        |
/// | static QByteArray head(int tag, int length)   | a reply before a block of 1 or more   |
/// | static QByteArray block(int length)           | such a block                          |
/// | static int tagOf(model_Protocoldata)          |                                       |
/// | static QByteArray handedOn(QByteArray block)  | what the record holds of a block      |
/// | static int floodSize                          | replies that take a second or two     |
/// | stream links: void close()                    | through the transport                 |
/// | stream links: static bool showsLostBlocks     | a reply without its block is queued   |
template <class Link>
class LinkConformance : public ::testing::Test
{
protected:
    LinkConformance() { hostqueue::clear(); }

    static bool queued(std::size_t count)
    {
        return eventually([count] { return hostqueue::size() >= count; });
    }

    // The reply that ends a scenario; what else is queued came before it.
    bool endsWith(std::size_t count, int tag)
    {
        return queued(count) && hostqueue::size() == count &&
               Link::tagOf(hostqueue::records().back()) == tag;
    }

    MessageCapture capture;
    Link link;
};

TYPED_TEST_SUITE_P(LinkConformance);

TYPED_TEST_P(LinkConformance, Send)
{
    ASSERT_TRUE(this->link.open());
    model_Protocoldata record;
    record.ADDR = 2;
    record.CMD = 0x83;
    record.DAT1 = 0xff;
    record.DAT3 = 3;
    record.arryDatablock = QByteArray("\0<\xff", 3);
    this->link.transport().sendDatatoDevice(&record);
    const QByteArray expected = TypeParam::command(record);
    EXPECT_TRUE(eventually([&] { return this->link.atDevice().size() >= expected.size(); }));
    EXPECT_EQ(this->link.atDevice().left(expected.size()), expected);
}

TYPED_TEST_P(LinkConformance, Reply)
{
    ASSERT_TRUE(this->link.open());
    this->link.deliver({TypeParam::reply(7)});
    EXPECT_TRUE(this->endsWith(1, 7));
    EXPECT_TRUE(hostqueue::flag());
}

TYPED_TEST_P(LinkConformance, BlockReply)
{
    ASSERT_TRUE(this->link.open());
    const QByteArray block = TypeParam::block(200);
    this->link.deliver(QByteArrayList{TypeParam::head(7, 200), block});
    ASSERT_TRUE(this->endsWith(1, 7));
    EXPECT_EQ(hostqueue::records().front().arryDatablock, TypeParam::handedOn(block));
}

TYPED_TEST_P(LinkConformance, Flood)
{
    ASSERT_TRUE(this->link.open());
    QByteArrayList flood;
    for (int i = 0; i < TypeParam::floodSize; ++i) {
        flood << TypeParam::reply(1 + i % 100);
    }
    this->link.deliver(flood);
    ASSERT_TRUE(this->endsWith(TypeParam::floodSize, 1 + (TypeParam::floodSize - 1) % 100));
    const auto records = hostqueue::records();
    for (std::size_t i = 0; i < records.size(); ++i) {
        ASSERT_EQ(TypeParam::tagOf(records[i]), 1 + static_cast<int>(i) % 100);
    }
}

TYPED_TEST_P(LinkConformance, WrongChecksum)
{
    ASSERT_TRUE(this->link.open());
    QByteArray wrong = TypeParam::reply(1);
    wrong[5] = static_cast<char>(wrong[5] ^ 1);
    this->link.deliver(QByteArrayList{wrong, TypeParam::reply(3)});
    EXPECT_TRUE(this->endsWith(1, 3));
}

TYPED_TEST_P(LinkConformance, TellsItsObservers)
{
    using Kind = EventLog::Kind;
    const auto log = std::make_shared<EventLog>();
    ICoreBase& transport = this->link.transport();
    transport.addObserver(log);
    ASSERT_TRUE(this->link.open());
    model_Protocoldata record;
    record.CMD = 0x83;
    transport.sendDatatoDevice(&record);
    EXPECT_TRUE(log->hasBytes(TypeParam::command(record), Kind::Sent));
    QByteArray wrong = TypeParam::reply(1);
    wrong[5] = static_cast<char>(wrong[5] ^ 1);
    const QByteArray block = TypeParam::block(200);
    this->link.deliver(QByteArrayList{wrong, TypeParam::head(7, 200), block});
    EXPECT_TRUE(log->has(1, Kind::Reply));
    const auto reply = log->all(Kind::Reply).at(0).reply;
    EXPECT_EQ(TypeParam::tagOf(reply), 7);
    EXPECT_EQ(reply.arryDatablock, TypeParam::handedOn(block));
    EXPECT_EQ(log->bytes(Kind::Refused, EventLog::Check::Checksum),
              wrong.left(TypeParam::head(1, 1).size()));
    for (const QByteArray& sent : {wrong, TypeParam::head(7, 200), block}) {
        EXPECT_TRUE(log->bytes(Kind::Received).contains(sent));
    }
    EXPECT_EQ(log->all(Kind::SendFailed).size(), 0U);
    transport.removeObserver(log);
    const std::size_t told = log->size();
    this->link.deliver({TypeParam::reply(3)});
    EXPECT_TRUE(this->endsWith(2, 3));
    EXPECT_EQ(log->size(), told);
}

REGISTER_TYPED_TEST_SUITE_P(LinkConformance, Send, Reply, BlockReply, Flood, WrongChecksum,
                            TellsItsObservers);

template <class Link>
class StreamLinkConformance : public LinkConformance<Link>
{
protected:
    // Either way the link shows that a reply's block has not come in time.
    bool gaveUpABlock() const
    {
        return Link::showsLostBlocks
                   ? hostqueue::size() > 0
                   : !this->capture.lines().filter(QStringLiteral("CheckBlock default:")).isEmpty();
    }

    static constexpr std::size_t lostBlocksShown = Link::showsLostBlocks ? 1 : 0;

    // Delivers the parts of reply(1) and of a reply(2) with its block, one after the other.
    bool joinsParts(const QByteArrayList& parts)
    {
        using Check = EventLog::Check;
        const auto log = std::make_shared<EventLog>();
        const auto lost = [&log] {
            return log->all(EventLog::Kind::Refused, Check::BlockMissing).size();
        };
        std::size_t before = 0;
        this->link.transport().addObserver(log);
        const bool isInTime = blockComesInTime(
            [&] {
                // One that was lost before may still be shown.
                EXPECT_TRUE(this->queued(lost() > 0 ? 1 + lostBlocksShown : 0));
                before = lost();
                hostqueue::clear();
                for (const QByteArray& part : parts) {
                    this->link.deliver({part});
                    QCoreApplication::processEvents();
                }
            },
            [] { return hostqueue::size() >= 2; }, [&] { return lost() > before; });
        this->link.transport().removeObserver(log);
        return isInTime && this->endsWith(2, 2) && Link::tagOf(hostqueue::records().front()) == 1;
    }
};

TYPED_TEST_SUITE_P(StreamLinkConformance);

TYPED_TEST_P(StreamLinkConformance, GarbageBefore)
{
    ASSERT_TRUE(this->link.open());
    this->link.deliver({QByteArray(300, 'x') + "<F\xF1" + TypeParam::reply(7)});
    EXPECT_TRUE(this->endsWith(1, 7));
}

TYPED_TEST_P(StreamLinkConformance, GarbageBetween)
{
    ASSERT_TRUE(this->link.open());
    this->link.deliver({TypeParam::reply(1) + "<<F" + TypeParam::reply(2) + QByteArray(5, '\0') +
                        TypeParam::head(3, 5) + TypeParam::block(5) + TypeParam::reply(4).left(9) +
                        TypeParam::reply(5)});
    EXPECT_TRUE(this->endsWith(4, 5));
}

TYPED_TEST_P(StreamLinkConformance, SplitAtEveryByte)
{
    ASSERT_TRUE(this->link.open());
    const QByteArray whole = TypeParam::reply(1) + TypeParam::head(2, 4) + TypeParam::block(4);
    for (int split = 1; split < whole.size(); ++split) {
        ASSERT_TRUE(this->joinsParts({whole.left(split), whole.mid(split)})) << split;
    }
    QByteArrayList bytes;
    for (const char byte : whole) {
        bytes << QByteArray(1, byte);
    }
    EXPECT_TRUE(this->joinsParts(bytes));
}

TYPED_TEST_P(StreamLinkConformance, WrongBlockChecksum)
{
    ASSERT_TRUE(this->link.open());
    QByteArray wrong = TypeParam::reply(1);
    wrong[5] = static_cast<char>(wrong[5] ^ 1);
    QByteArray block = TypeParam::block(20);
    block[7] = static_cast<char>(block[7] ^ 1);
    this->link.deliver({wrong + TypeParam::head(2, 20) + block + TypeParam::reply(3)});
    EXPECT_TRUE(this->endsWith(TestFixture::lostBlocksShown + 1, 3));
    EXPECT_TRUE(hostqueue::records().front().arryDatablock.isEmpty());
}

TYPED_TEST_P(StreamLinkConformance, LateBlock)
{
    ASSERT_TRUE(this->link.open());
    this->link.deliver({TypeParam::head(1, 50)});
    ASSERT_TRUE(eventually([this] { return this->gaveUpABlock(); }));
    this->link.deliver({TypeParam::block(50) + TypeParam::reply(3)});
    EXPECT_TRUE(this->endsWith(TestFixture::lostBlocksShown + 1, 3));
}

TYPED_TEST_P(StreamLinkConformance, CloseInTheMiddle)
{
    ASSERT_TRUE(this->link.open());
    this->link.deliver(
        {TypeParam::reply(1) + TypeParam::head(2, 50) + TypeParam::block(50).left(20)});
    ASSERT_TRUE(this->queued(1));
    const auto start = std::chrono::steady_clock::now();
    this->link.close();
    // 600 ms, and what a busy machine adds to each look for the block.
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(60));
    ASSERT_TRUE(this->link.open());
    this->link.deliver({TypeParam::block(50).mid(20) + TypeParam::reply(3)});
    EXPECT_TRUE(eventually([] { return TypeParam::tagOf(hostqueue::records().back()) == 3; }));
    for (const auto& record : hostqueue::records()) {
        EXPECT_TRUE(record.arryDatablock.isEmpty());
    }
}

TYPED_TEST_P(StreamLinkConformance, TellsOfNoiseOfLostBlocksAndOfItsState)
{
    using Kind = EventLog::Kind;
    using Check = EventLog::Check;
    const auto log = std::make_shared<EventLog>();
    this->link.transport().addObserver(log);
    ASSERT_TRUE(this->link.open());
    ASSERT_TRUE(log->has(1, Kind::Opened));
    EXPECT_EQ(log->all(Kind::Opened).at(0).event.port, 0); // a stream has no address
    const QByteArray noise(300, 'x');
    this->link.deliver({noise + TypeParam::reply(1)});
    EXPECT_TRUE(log->hasBytes(noise, Kind::Skipped));
    const auto handedOver = log->all(Kind::Reply).size();
    QByteArray damaged = TypeParam::block(20);
    damaged[7] = static_cast<char>(damaged[7] ^ 1);
    this->link.deliver({TypeParam::head(2, 20) + damaged});
    EXPECT_TRUE(log->hasBytes(damaged, Kind::Refused, Check::BlockChecksum));
    EXPECT_EQ(TypeParam::tagOf(log->all(Kind::Refused, Check::BlockChecksum).at(0).reply), 2);
    const QByteArray begun = TypeParam::block(20).left(5);
    this->link.deliver({TypeParam::head(4, 20) + begun});
    EXPECT_TRUE(log->has(1, Kind::Refused, Check::BlockMissing));
    EXPECT_TRUE(log->bytes(Kind::Refused, Check::BlockMissing).startsWith(begun));
    EXPECT_EQ(log->all(Kind::Refused, Check::BlockMissing).at(0).event.port, 0);
    EXPECT_EQ(TypeParam::tagOf(log->all(Kind::Refused, Check::BlockMissing).at(0).reply), 4);
    EXPECT_LE(handedOver, 1U);
    this->link.close();
    EXPECT_TRUE(log->has(1, Kind::Closed));
    EXPECT_EQ(log->all(Kind::Lost).size(), 0U);
}

REGISTER_TYPED_TEST_SUITE_P(StreamLinkConformance, GarbageBefore, GarbageBetween, SplitAtEveryByte,
                            WrongBlockChecksum, LateBlock, CloseInTheMiddle,
                            TellsOfNoiseOfLostBlocksAndOfItsState);
