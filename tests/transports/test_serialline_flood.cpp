// SPDX-License-Identifier: MIT
#include "biz_cmdswork.h"
#include "core_serialport.h"
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
};

struct Binary : SerialLinkUnderTest<NotingLine<Vela_Core_SerialPort>> {
    static QByteArray bigReply()
    {
        return replybytes::head(blockSize) + replybytes::block(blockSize);
    }
    static QByteArray reply() { return replybytes::head(0); }
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

    // Floods until the receive buffer is full and the line takes nothing for a while.
    bool floodUntilHeld(const QByteArray& reply)
    {
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
                return accepted > 2 * qint64{ReceiveBuffer::limit} ||
                       (buffered() >= ReceiveBuffer::limit &&
                        Clock::now() - moved > milliseconds(500));
            },
            std::chrono::seconds(90));
    }

    Link link;
    qint64 accepted = 0;
};

using Links = ::testing::Types<Text, Binary>;
TYPED_TEST_SUITE(SerialLineFlood, Links);

} // namespace

TYPED_TEST(SerialLineFlood, TheLineHoldsBackWhatTheParserHasNoRoomFor)
{
    const QByteArray reply = TypeParam::bigReply();
    ASSERT_TRUE(this->link.open());
    {
        const std::lock_guard hostIsBusy(biz_CMDSWork::receiveHexCmdlock);
        ASSERT_TRUE(this->floodUntilHeld(reply));
        EXPECT_GE(this->buffered(), ReceiveBuffer::limit);
        EXPECT_LE(this->accepted, ReceiveBuffer::limit + onTheWay);
        this->link.line.readPendingDatagrams(); // no way around it
        EXPECT_LE(this->buffered(), ReceiveBuffer::limit + onTheWay);
    }
    // The line goes on, and all that it has taken is parsed.
    EXPECT_TRUE(eventually([&] {
        if (this->accepted % reply.size() != 0) {
            this->flood(reply);
        }
        return static_cast<qint64>(hostqueue::size()) * reply.size() == this->accepted;
    }));
    EXPECT_EQ(this->buffered(), 0);
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
