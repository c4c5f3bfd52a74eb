// SPDX-License-Identifier: MIT
#include "biz_cmdswork.h"
#include "core_serialport.h"
#include "eventlog.h"
#include "hostqueue.h"
#include "processstate.h"
#include "receivebuffer.h"
#include "replybytes.h"
#include "replystream.h"
#include "serialconformance.h"
#include "vela_core_serialport.h"

#include <gtest/gtest.h>

#include <QLoggingCategory>

#include <cstdio>

namespace
{

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

// What the kernel and the port may hold beside the receive buffer.
constexpr int onTheWay = 1024 * 1024;

constexpr int blockSize = 60000;

struct Text : SerialLinkUnderTest<NotingLine<Core_SerialPort>> {
    static QByteArray bigReply()
    {
        return replybytes::text(0xF1, 0x12, blockSize & 0xff, blockSize >> 8) +
               replybytes::block(blockSize);
    }
    static QByteArray reply() { return replybytes::text(0x10, 0x20); }
    static constexpr bool showsLostBlocks = false; // as a reply without its block
};

struct Binary : SerialLinkUnderTest<NotingLine<Vela_Core_SerialPort>> {
    static QByteArray bigReply()
    {
        return replybytes::head(blockSize) + replybytes::block(blockSize);
    }
    static QByteArray reply() { return replybytes::head(0); }
    static constexpr bool showsLostBlocks = true;
};

template <class Link>
class SerialLineFlood : public ::testing::Test
{
protected:
    SerialLineFlood()
    {
        hostqueue::clear();
        QLoggingCategory::defaultCategory()->setEnabled(QtDebugMsg, false);
    }

    qsizetype buffered() { return link.line.stream()->received.size(); }

    // Goes on sending the same reply for ever, as far as the line takes it.
    void flood(const QByteArray& reply)
    {
        const QByteArray rest = reply.mid(static_cast<int>(accepted % reply.size()));
        accepted += link.peer.offer(rest);
    }

    // Floods until the receive buffer is full and the line takes nothing for a while. The parser
    // waits for the host meanwhile, with one reply that came whole: it gives up a block that a busy
    // machine brings too late.
    bool floodUntilHeld(const QByteArray& reply)
    {
        link.line.appendBuffData(reply);
        if (!eventually([this] { return buffered() == 0; })) {
            return false;
        }
        // The line is slow where others want the processors: all but the end comes another way.
        for (; filled < ReceiveBuffer::limit - 2 * onTheWay; filled += reply.size()) {
            link.line.appendBuffData(reply);
        }
        qint64 before = -1;
        auto moved = Clock::now();
        return eventually(
            [&] {
                for (int i = 0; i < 16; ++i) {
                    flood(reply);
                }
                if (accepted != before) {
                    before = accepted;
                    moved = Clock::now();
                }
                return accepted > qint64{ReceiveBuffer::limit} ||
                       (buffered() >= ReceiveBuffer::limit &&
                        Clock::now() - moved > milliseconds(500));
            },
            std::chrono::seconds(90));
    }

    Link link;
    qint64 accepted = 0; // by the line
    qint64 filled = 0;   // that came another way
};

using Links = ::testing::Types<Text, Binary>;
TYPED_TEST_SUITE(SerialLineFlood, Links);

} // namespace

TYPED_TEST(SerialLineFlood, TheLineHoldsBackWhatTheParserHasNoRoomFor)
{
    const QByteArray reply = TypeParam::bigReply();
    const auto log = std::make_shared<EventLog>();
    const auto lost = [&log] {
        return static_cast<qint64>(
            log->all(EventLog::Kind::Refused, EventLog::Check::BlockMissing).size());
    };
    ASSERT_TRUE(this->link.open());
    {
        const std::lock_guard hostIsBusy(biz_CMDSWork::receiveHexCmdlock);
        ASSERT_TRUE(this->floodUntilHeld(reply));
        EXPECT_GE(this->buffered(), ReceiveBuffer::limit);
        EXPECT_LE(this->filled + this->accepted, ReceiveBuffer::limit + onTheWay);
        QMetaObject::invokeMethod(&this->link.line, "readPendingDatagrams"); // no way around it
        EXPECT_LE(this->buffered(), ReceiveBuffer::limit + onTheWay);
        this->link.line.addObserver(log);
    }
    // The line goes on, and all that it has taken is parsed. What completes the last reply may come
    // too late on a busy machine.
    const auto parsed = [&] {
        const auto inQueue = static_cast<qint64>(hostqueue::size());
        const qint64 first = 1; // that the parser waited with
        return inQueue - first + (TypeParam::showsLostBlocks ? 0 : lost());
    };
    EXPECT_TRUE(eventually([&] {
        if (this->accepted % reply.size() != 0) {
            this->flood(reply);
        }
        return hostqueue::size() > 0 && parsed() * reply.size() == this->filled + this->accepted;
    }));
    EXPECT_LE(lost(), 1);
    // Less than a head of what was the block of the last is not looked at.
    EXPECT_TRUE(eventually([&] { return this->buffered() < (lost() == 0 ? 1 : 19); }));
}

TYPED_TEST(SerialLineFlood, ALineThatHasHungUpIsNotHeldBack)
{
    QObject::connect(&this->link.line.port(), &QSerialPort::errorOccurred, &this->link.line,
                     &std::decay_t<decltype(this->link.line)>::handleError);
    ASSERT_TRUE(this->link.open());
    const std::lock_guard hostIsBusy(biz_CMDSWork::receiveHexCmdlock);
    ASSERT_TRUE(this->floodUntilHeld(TypeParam::bigReply()));
    this->link.peer.hangUp();
    EXPECT_TRUE(eventually([this] { return !this->link.line.port().isOpen(); }));
    EXPECT_GE(this->buffered(), ReceiveBuffer::limit);
}

TYPED_TEST(SerialLineFlood, WhatIsDroppedIsNotHeldBack)
{
    ASSERT_TRUE(this->link.open());
    const std::lock_guard hostIsBusy(biz_CMDSWork::receiveHexCmdlock);
    ASSERT_TRUE(this->floodUntilHeld(TypeParam::bigReply()));
    const auto before = this->buffered();
    this->link.line.drop(true);
    const qint64 later = this->accepted + onTheWay;
    EXPECT_TRUE(eventually([&] {
        this->flood(TypeParam::bigReply());
        return this->accepted > later;
    }));
    EXPECT_EQ(this->buffered(), before);
}

// As fast as the line takes replies that the parser takes at one per pass.
TYPED_TEST(SerialLineFlood, AnUnlimitedFloodTakesLittleMemory)
{
    const QByteArray replies = TypeParam::reply().repeated(200);
    ASSERT_TRUE(this->link.open());
    const long before = processstate::residentKiB();
    long most = 0;
    const auto end = Clock::now() + std::chrono::seconds(FLOOD_SECONDS);
    while (Clock::now() < end) {
        this->flood(replies);
        QCoreApplication::processEvents();
        most = qMax(most, processstate::residentKiB() - before);
    }
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) // they need memory themselves
    EXPECT_LT(most, 32 * 1024);
#endif
    EXPECT_GT(hostqueue::size(), 0U);
    const qint64 taken = this->accepted - this->buffered();
    const auto parsed = static_cast<qint64>(hostqueue::size()) * TypeParam::reply().size();
    EXPECT_LT(qAbs(taken - parsed), onTheWay);
    std::printf("%ld KiB more, %lld bytes taken, %zu replies\n", most, this->accepted,
                hostqueue::size());
}
