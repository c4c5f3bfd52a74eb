// SPDX-License-Identifier: MIT
#include "biz_cmdswork.h"
#include "eventually.h"
#include "hostqueue.h"
#include "messagecapture.h"
#include "processstate.h"
#include "replybytes.h"
#include "replystream.h"
#include "streamlink.h"
#include "textreplyformat.h"
#include "threadrefusal.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <future>
#include <memory>

namespace
{

using std::chrono::milliseconds;

constexpr TextReplyFormat replies{TextReplyValues()};
constexpr milliseconds patience{90'000}; // for what ends by itself
constexpr milliseconds blockPause{4};    // between two looks for a block

// What a link does with the protected half.
class Transport : public StreamLink
{
public:
    Transport() : StreamLink(replies) {}
    explicit Transport(std::shared_ptr<ReplyStream> stream) : Transport()
    {
        current = std::move(stream);
    }
    using StreamLink::isParsing;
    using StreamLink::startParsing;
    using StreamLink::stream;

    void stopParsing(milliseconds limit) { StreamLink::stopParsing(limit, Counts::AllTime); }
    void awaitParsingEnd(milliseconds limit)
    {
        StreamLink::stopParsing(limit, Counts::TimeInTheHost);
    }

    QByteArray produceCmds(model_Protocoldata /*record*/) override { return {}; }
    void sendDatatoDevice(void* /*parameters*/) override {}
    void sendDatatoDeviceByFeatures(void* /*parameters*/) override {}
    void sendDatatoDeviceForSysPlan(void* /*parameters*/) override {}

private:
    bool writeFrame(const QByteArray& /*frame*/) override { return false; }
};

// A stream whose parser stays in a pause of this length; in any pause, if that is zero.
class HeldStream : public ReplyStream
{
public:
    explicit HeldStream(milliseconds pause) : heldPause(pause) {}

    std::atomic<bool> isHeld{true};
    std::atomic<bool> isWaiting{false};

private:
    void sleep(milliseconds duration) override
    {
        while (isHeld && (duration == heldPause || heldPause == milliseconds::zero())) {
            isWaiting = true;
            std::this_thread::sleep_for(milliseconds(1));
        }
        std::this_thread::sleep_for(duration);
    }

    const milliseconds heldPause;
};

// A host's message handler that keeps who has a line for it.
std::atomic<bool> handlerHolds{false};
std::atomic<bool> handlerEntered{false};

void holdingHandler(QtMsgType /*type*/, const QMessageLogContext& /*context*/,
                    const QString& /*text*/)
{
    handlerEntered = true;
    while (handlerHolds) {
        std::this_thread::sleep_for(milliseconds(1));
    }
}

bool queued(std::size_t count)
{
    return eventually([count] { return hostqueue::size() == count; });
}

} // namespace

class ReplyStreamParserStop : public ::testing::Test
{
protected:
    ReplyStreamParserStop() { hostqueue::clear(); }

    const int threadsBefore = processstate::threads();
    bool threadsAreGone() const
    {
        return eventually([this] { return processstate::threads() <= threadsBefore; });
    }

    std::unique_ptr<Transport> transport = std::make_unique<Transport>();
};

TEST_F(ReplyStreamParserStop, StopBeforeTheThreadHasRunNeitherHangsNorReturnsEarly)
{
    for (int i = 0; i < 200; ++i) {
        ASSERT_TRUE(transport->startParsing());
        EXPECT_TRUE(transport->isParsing());
        const auto stream = transport->stream();
        transport->awaitParsingEnd(patience);
        EXPECT_FALSE(stream->token.isRunning());
        EXPECT_EQ(transport->stream(), stream); // a parser that ended leaves its stream
    }
    EXPECT_TRUE(threadsAreGone());
}

TEST_F(ReplyStreamParserStop, StoppingKeepsTheBuffer)
{
    ASSERT_TRUE(transport->startParsing());
    transport->appendBuffData("<F");
    transport->stopParsing(patience);
    EXPECT_EQ(transport->getBuffData(10), "<F");
    transport->stopParsing(patience); // no parser: at once
    EXPECT_EQ(transport->getBuffData(10), "<F");
}

TEST_F(ReplyStreamParserStop, RefusedThreadLeavesNoParser)
{
    {
        const ThreadRefusal refusal;
        EXPECT_FALSE(transport->startParsing());
    }
    EXPECT_FALSE(transport->isParsing());
    transport->stopParsing(patience);
    ASSERT_TRUE(transport->startParsing());
    transport->appendBuffData(replybytes::text(0x79, 0x0C));
    EXPECT_TRUE(queued(1));
    transport->stopParsing(patience);
}

TEST_F(ReplyStreamParserStop, AParserInABlockWaitIsLeftItsOwnStream)
{
    const auto old = std::make_shared<HeldStream>(blockPause);
    transport = std::make_unique<Transport>(old);
    old->setOriginName(QStringLiteral("name"));
    transport->setDeviceType(static_cast<model_GlobalEnum::DeviceType>(7));
    ASSERT_TRUE(transport->startParsing());
    transport->appendBuffData(replybytes::text(0x8B, 0x05));
    ASSERT_TRUE(eventually([&old] { return old->isWaiting.load(); }));
    transport->stopParsing(milliseconds::zero());
    EXPECT_NE(transport->stream(), old);
    ASSERT_TRUE(transport->startParsing());

    // The new session's bytes would complete the old one's block.
    transport->appendBuffData(replybytes::block(145) + replybytes::text(0x79, 0x0C));
    EXPECT_TRUE(queued(1));
    EXPECT_EQ(hostqueue::records().front().CMD, 0x79);
    EXPECT_EQ(hostqueue::records().front().strKey2, QStringLiteral("name"));
    EXPECT_EQ(hostqueue::records().front().featureCode, 7);
    old->isHeld = false;
    EXPECT_TRUE(
        eventually([&old] { return !old->token.isRunning(); })); // though the new flag is set
    EXPECT_TRUE(transport->isParsing());
    EXPECT_EQ(hostqueue::size(), 1U);
    transport->stopParsing(patience);
}

TEST_F(ReplyStreamParserStop, AParserThatTheHostKeepsWaitingOutlivesTheTransport)
{
    {
        const std::lock_guard hostIsBusy(biz_CMDSWork::receiveHexCmdlock);
        ASSERT_TRUE(transport->startParsing());
        transport->appendBuffData(replybytes::text(0x79, 0x0C));
        ASSERT_TRUE(eventually([this] { return transport->getBuffData(100).isEmpty(); }));
        transport->stopParsing(milliseconds(20));
        EXPECT_FALSE(transport->isParsing());
        transport.reset();
    }
    EXPECT_TRUE(queued(1)); // it was received
    EXPECT_TRUE(threadsAreGone());
}

TEST_F(ReplyStreamParserStop, AParserThatGetsNoTimeIsWaitedFor)
{
    const auto stream = std::make_shared<HeldStream>(milliseconds::zero());
    transport = std::make_unique<Transport>(stream);
    ASSERT_TRUE(transport->startParsing());
    ASSERT_TRUE(eventually([&stream] { return stream->isWaiting.load(); }));
    auto closing =
        std::async(std::launch::async, [this] { transport->awaitParsingEnd(milliseconds(2500)); });
    EXPECT_EQ(closing.wait_for(milliseconds(3000)), std::future_status::timeout);
    stream->isHeld = false;
    closing.get();
    EXPECT_FALSE(stream->token.isRunning());
    EXPECT_EQ(transport->stream(), stream);
}

TEST_F(ReplyStreamParserStop, AParserWhoseThreadStartsLateIsWaitedFor)
{
    ASSERT_TRUE(transport->startParsing());
    transport->appendBuffData(replybytes::text(0x10, 0x20));
    ASSERT_TRUE(queued(1)); // a parser has worked on this stream
    transport->stopParsing(patience);
    const auto stream = transport->stream();
    std::promise<void> started;
    auto closing = std::async(std::launch::async, [&] {
        started.get_future().wait();
        transport->awaitParsingEnd(milliseconds::zero());
    });
    {
        const ThreadHold busyMachine;
        ASSERT_TRUE(transport->startParsing());
        started.set_value();
        EXPECT_EQ(closing.wait_for(milliseconds(200)), std::future_status::timeout);
    }
    closing.get();
    EXPECT_EQ(transport->stream(), stream);
}

TEST_F(ReplyStreamParserStop, AParserInABlockWaitIsWaitedFor)
{
    const auto stream = std::make_shared<HeldStream>(blockPause);
    transport = std::make_unique<Transport>(stream);
    ASSERT_TRUE(transport->startParsing());
    transport->appendBuffData(replybytes::text(0x8B, 0x05));
    ASSERT_TRUE(eventually([&stream] { return stream->isWaiting.load(); }));
    auto closing =
        std::async(std::launch::async, [this] { transport->awaitParsingEnd(milliseconds(2500)); });
    EXPECT_EQ(closing.wait_for(milliseconds(3000)), std::future_status::timeout);
    stream->isHeld = false; // all of the wait is still to come
    closing.get();
    EXPECT_FALSE(stream->token.isRunning());
    EXPECT_EQ(transport->stream(), stream);
}

TEST_F(ReplyStreamParserStop, TheTimeInTheHostCountsFromThePauseBeforeIt)
{
    bool isWaitedFor = false;
    for (int i = 0; i < 10 && !isWaitedFor; ++i) { // a busy machine may let it wait for too long
        const auto stream = std::make_shared<HeldStream>(milliseconds::zero());
        transport = std::make_unique<Transport>(stream);
        ASSERT_TRUE(transport->startParsing());
        ASSERT_TRUE(eventually([&stream] { return stream->isWaiting.load(); }));
        std::unique_lock hostIsBusy(biz_CMDSWork::receiveHexCmdlock);
        transport->appendBuffData(replybytes::text(0x79, 0x0C));
        auto closing = std::async(std::launch::async,
                                  [this] { transport->awaitParsingEnd(milliseconds(300)); });
        EXPECT_EQ(closing.wait_for(milliseconds(400)), std::future_status::timeout);
        stream->isHeld = false;
        EXPECT_TRUE(eventually([&stream] { return stream->received.size() == 0; }));
        std::this_thread::sleep_for(milliseconds(50));
        hostIsBusy.unlock();
        closing.get();
        isWaitedFor = transport->stream() == stream;
    }
    EXPECT_TRUE(isWaitedFor);
}

TEST_F(ReplyStreamParserStop, AParserInTheHostsCodeIsLeftBehind)
{
    const MessageCapture debugLines; // switched on
    handlerHolds = true;
    const auto before = qInstallMessageHandler(holdingHandler);
    ASSERT_TRUE(transport->startParsing());
    const auto stream = transport->stream();
    transport->appendBuffData(replybytes::text(0x10, 0x20));
    ASSERT_TRUE(eventually([] { return handlerEntered.load(); }));
    const auto start = std::chrono::steady_clock::now();
    transport->awaitParsingEnd(milliseconds(50));
    EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(50));
    EXPECT_TRUE(stream->token.isRunning());
    EXPECT_NE(transport->stream(), stream);
    handlerHolds = false;
    EXPECT_TRUE(eventually([&stream] { return !stream->token.isRunning(); }));
    qInstallMessageHandler(before);
    EXPECT_TRUE(queued(1)); // it was received
}

TEST_F(ReplyStreamParserStop, StopsAndStartsUnderLoadMixNoSessions)
{
    std::atomic<bool> done{false};
    std::thread device([&] {
        for (int i = 0; !done; ++i) {
            transport->appendBuffData(i % 3 == 0 ? replybytes::text(0x8B, 0x05)
                                                 : replybytes::text(0x10, 0x20));
            transport->setDeviceType(static_cast<model_GlobalEnum::DeviceType>(i));
            transport->stream()->setOriginName(QString::number(i));
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
    });
    for (int i = 0; i < 50; ++i) {
        ASSERT_TRUE(transport->startParsing());
        std::this_thread::sleep_for(milliseconds(i % 7));
        transport->stopParsing(i % 5 == 0 ? patience : milliseconds(i % 4));
    }
    done = true;
    device.join();
    transport.reset();
    EXPECT_TRUE(threadsAreGone());
}

TEST_F(ReplyStreamParserStop, DestructionEndsTheParser)
{
    ASSERT_TRUE(transport->startParsing());
    transport.reset();
    EXPECT_TRUE(threadsAreGone());
}

// The process ends with a transport that nobody destroys: at work, in a wait for a block, and kept
// waiting by the host for ever.
TEST(ReplyStreamParserStopDeathTest, ExitWithAParserRunning)
{
    for (const int state : {0, 1, 2}) {
        EXPECT_EXIT(
            {
                auto* transport = new Transport;
                if (state == 2) {
                    biz_CMDSWork::receiveHexCmdlock.lock();
                }
                transport->appendBuffData(
                    (state == 1 ? replybytes::text(0x8B, 0x05) : replybytes::text(0x79, 0x0C)) +
                    replybytes::text(0x10, 0x20).repeated(100));
                const bool started = transport->startParsing();
                std::this_thread::sleep_for(milliseconds(10));
                std::exit(started ? 0 : 1);
            },
            ::testing::ExitedWithCode(0), "");
    }
}
