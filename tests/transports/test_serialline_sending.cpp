// SPDX-License-Identifier: MIT
#include "core_serialport.h"

#include "eventlog.h"
#include "hostqueue.h"
#include "messagecapture.h"
#include "receivebuffer.h"
#include "serialpeer.h"
#include "wakeups.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <functional>
#include <future>
#include <memory>
#include <thread>

#include <dlfcn.h>
#include <sys/ioctl.h>

namespace
{

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

// A pseudo-terminal never says that output waits in it. What a UART would say, look by look:
struct Uart {
    std::atomic<bool> plugged{false};
    std::atomic<int> queued{0};      // bytes in the system's buffer
    std::atomic<int> perLook{0};     // of them leave between two looks
    std::atomic<int> looksToFifo{0}; // looks at which the UART's own buffer is not empty yet
    std::atomic<int> dropped{0};     // how often the output was dropped
    std::function<void()> atLook = [] {};

    void unplug()
    {
        plugged = false;
        queued = perLook = looksToFifo = dropped = 0;
        atLook = [] {};
    }
};

Uart uart;

std::atomic<int> interruptions{0}; // of writes, by a signal

} // namespace

// These take the place of the C library's functions in this program and the libraries it loads.
extern "C" __attribute__((visibility("default"))) int ioctl(int descriptor, unsigned long request,
                                                            ...) noexcept
{
    using Call = int (*)(int, unsigned long, ...);
    static const auto next = reinterpret_cast<Call>(dlsym(RTLD_NEXT, "ioctl"));
    va_list arguments;
    va_start(arguments, request);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    if (uart.plugged && request == TIOCOUTQ) {
        uart.atLook();
        uart.queued = qMax(0, uart.queued - uart.perLook);
        *static_cast<int*>(argument) = uart.queued;
        return 0;
    }
    if (uart.plugged && request == TIOCSERGETLSR) {
        *static_cast<unsigned*>(argument) = uart.looksToFifo-- > 0 ? 0 : TIOCSER_TEMT;
        return 0;
    }
    return next(descriptor, request, argument);
}

extern "C" __attribute__((visibility("default"))) ssize_t write(int descriptor, const void* bytes,
                                                                std::size_t size)
{
    using Call = ssize_t (*)(int, const void*, std::size_t);
    static const auto next = reinterpret_cast<Call>(dlsym(RTLD_NEXT, "write"));
    if (isatty(descriptor) == 1 && interruptions > 0) {
        --interruptions;
        errno = EINTR;
        return -1;
    }
    return next(descriptor, bytes, size);
}

extern "C" __attribute__((visibility("default"))) int tcflush(int /*descriptor*/,
                                                              int /*queue*/) noexcept
{
    ++uart.dropped;
    uart.queued = 0;
    return 0;
}

class SerialLineSending : public ::testing::Test
{
protected:
    SerialLineSending() { hostqueue::clear(); }
    ~SerialLineSending() override { uart.unplug(); }

    bool open(QSerialPort::FlowControl flow = QSerialPort::NoFlowControl)
    {
        return line->openSerialPort(peer.portName(), QSerialPort::Baud9600, QSerialPort::OneStop,
                                    QSerialPort::NoParity, flow, QSerialPort::Data8);
    }

    // Sends a frame that says which it is, and notes what the device is to receive.
    void send(qsizetype number, int blockSize = 0)
    {
        model_Protocoldata record;
        record.ADDR = static_cast<quint8>(number);
        record.arryDatablock = QByteArray(blockSize, static_cast<char>('a' + number % 26));
        frames << line->produceCmds(record);
        line->sendDatatoDevice(&record);
    }

    QByteArray all() const { return frames.join(); }

    // Sends frames until the line takes no more, and some that wait.
    void overfill(int waiting = 5)
    {
        do {
            send(frames.size(), 1000);
        } while (logged() == frames.size());
        for (int i = 0; i < waiting; ++i) {
            send(frames.size(), 1000);
        }
    }

    static QStringList::size_type logged()
    {
        return hostqueue::logLines().filter(QStringLiteral("Send successful:")).size();
    }

    // The bytes of so many frames.
    qsizetype sizeOf(QStringList::size_type count) const
    {
        return frames.mid(0, count).join().size();
    }

    // How often a close looks whether anything is on its way; once if there is nothing.
    int looksOfClose()
    {
        int looks = 0;
        uart.plugged = true;
        uart.atLook = [&looks] { ++looks; };
        line->closeSerialPort();
        uart.unplug();
        return looks;
    }

    milliseconds closeTakes()
    {
        const auto start = Clock::now();
        line->closeSerialPort();
        return std::chrono::duration_cast<milliseconds>(Clock::now() - start);
    }

    SerialPeer peer;
    std::unique_ptr<Core_SerialPort> line = std::make_unique<Core_SerialPort>();
    QByteArrayList frames;
    MessageCapture capture;
};

// None of these runs the event loop between the send and the look at what has come.

TEST_F(SerialLineSending, AFrameLeavesWithoutTheEventLoop)
{
    ASSERT_TRUE(open());
    send(1);
    EXPECT_TRUE(peer.awaitReceived(all().size()));
    EXPECT_EQ(peer.received(), all());
}

TEST_F(SerialLineSending, ASignalLosesNoFrame)
{
    ASSERT_TRUE(open());
    interruptions = 3;
    send(1);
    EXPECT_EQ(interruptions, 0);
    EXPECT_TRUE(eventually([&] { return peer.received() == all(); }));
    EXPECT_EQ(logged(), 1);
}

TEST_F(SerialLineSending, AFrameLeavesBeforeTheClose)
{
    ASSERT_TRUE(open());
    send(1);
    line->closeSerialPort();
    EXPECT_TRUE(peer.awaitReceived(all().size()));
    EXPECT_EQ(peer.received(), all());
}

TEST_F(SerialLineSending, AFrameLeavesBeforeTheDestruction)
{
    ASSERT_TRUE(open());
    send(1);
    line.reset();
    EXPECT_TRUE(peer.awaitReceived(all().size()));
    EXPECT_EQ(peer.received(), all());
}

TEST_F(SerialLineSending, FramesLeaveBeforeAndAfterAReopening)
{
    ASSERT_TRUE(open());
    send(1);
    ASSERT_TRUE(open());
    send(2);
    EXPECT_TRUE(peer.awaitReceived(all().size()));
    EXPECT_EQ(peer.received(), all());
}

TEST_F(SerialLineSending, WhatTheLogCallsSentHasLeft)
{
    ASSERT_TRUE(open());
    overfill();
    const auto sent = logged();
    ASSERT_GT(sent, 0);
    EXPECT_EQ(capture.count(QStringLiteral("Send successful")), sent);
    EXPECT_EQ(capture.count(QStringLiteral("Send failed")), 0);
    EXPECT_TRUE(peer.awaitReceived(sizeOf(sent)));
    EXPECT_TRUE(all().startsWith(peer.received()));
}

TEST_F(SerialLineSending, WhatWaitsFollowsInOrderAndIsLogged)
{
    ASSERT_TRUE(open());
    overfill();
    EXPECT_TRUE(eventually([this] { return peer.received().size() >= all().size(); }));
    EXPECT_TRUE(peer.received() == all());
    EXPECT_TRUE(eventually([this] { return logged() == frames.size(); }));
    EXPECT_EQ(capture.count(QStringLiteral("Send successful")), frames.size());
}

TEST_F(SerialLineSending, TheCloseGivesWhatWaitsAMoment)
{
    ASSERT_TRUE(open());
    overfill();
    uart.plugged = true;
    uart.atLook = [this] { peer.received(); };
    line->closeSerialPort();
    EXPECT_TRUE(peer.awaitReceived(all().size()));
    EXPECT_TRUE(peer.received() == all());
    EXPECT_EQ(logged(), frames.size());
}

TEST_F(SerialLineSending, TheDestructionIsAClose)
{
    const auto log = std::make_shared<EventLog>();
    line->addObserver(log);
    ASSERT_TRUE(open());
    overfill();
    std::thread reader([&] { EXPECT_TRUE(peer.awaitReceived(all().size())); });
    line.reset();
    reader.join();
    EXPECT_EQ(peer.received(), all());
    EXPECT_EQ(log->all(LinkEvent::Kind::Closed).size(), 1U);
}

TEST_F(SerialLineSending, WaitingForRoomCostsNoProcessor)
{
    ASSERT_TRUE(open());
    overfill();
    EXPECT_LT(wakeUps(), 600); // one every 5 ms
}

TEST_F(SerialLineSending, TheCloseCountsWhatTheSystemHasAndWhatWaits)
{
    const auto log = std::make_shared<EventLog>();
    line->addObserver(log);
    ASSERT_TRUE(open());
    overfill();
    uart.plugged = true;
    uart.queued = static_cast<int>(all().size() - log->bytes(EventLog::Kind::Sent).size());
    uart.atLook = [this, looks = 0]() mutable {
        if (++looks > 1) { // at the first the system has as much as waits
            uart.queued = 0;
            peer.received();
        }
    };
    line->closeSerialPort();
    EXPECT_TRUE(peer.awaitReceived(all().size()));
    EXPECT_EQ(logged(), frames.size());
}

// As on a machine that gives the host's thread no time between two looks.
TEST_F(SerialLineSending, TheCloseTriesOnceMoreBehindALongPause)
{
    ASSERT_TRUE(open());
    overfill();
    uart.plugged = true;
    uart.atLook = [this] {
        if (peer.received().size() < all().size()) {
            std::this_thread::sleep_for(milliseconds(1100)); // more than what waits is given
        }
    };
    line->closeSerialPort();
    EXPECT_TRUE(peer.awaitReceived(all().size()));
    EXPECT_TRUE(peer.received() == all());
    EXPECT_EQ(logged(), frames.size());
}

TEST_F(SerialLineSending, ADeviceThatTakesNothingDoesNotHoldTheClose)
{
    const auto log = std::make_shared<EventLog>();
    line->addObserver(log);
    ASSERT_TRUE(open());
    overfill();
    EXPECT_LT(closeTakes(), milliseconds(20000)); // 800 and a busy machine
    const auto sent = logged();
    EXPECT_LT(sent, frames.size());
    EXPECT_EQ(uart.dropped, 0); // what has left the process stays on its way
    const auto before = log->bytes(EventLog::Kind::Sent).size(); // with the beginning of a frame
    EXPECT_GE(before, sizeOf(sent));
    for (const EventLog::Entry& entry : log->all(EventLog::Kind::Sent)) {
        EXPECT_FALSE(entry.event.bytes.isEmpty());
    }
    EXPECT_TRUE(peer.awaitReceived(before));
    EXPECT_EQ(peer.received().size(), before);
    ASSERT_TRUE(open()); // and nothing of the old frames comes behind it
    frames.clear();
    send(1);
    EXPECT_TRUE(peer.awaitReceived(before + all().size()));
    EXPECT_EQ(peer.received().mid(before), all());
    EXPECT_EQ(looksOfClose(), 1);
}

TEST_F(SerialLineSending, ADeviceThatTakesLittleDoesNotHoldTheClose)
{
    ASSERT_TRUE(open());
    overfill(300);
    std::atomic<bool> done{false};
    auto device = std::async(std::launch::async, [this, &done] {
        for (; !done; std::this_thread::sleep_for(milliseconds(100))) {
            peer.receive(1000);
        }
    });
    EXPECT_LT(closeTakes(), milliseconds(8000)); // one second and a busy machine; all takes thirty
    done = true;
    EXPECT_LT(logged(), frames.size());
}

TEST_F(SerialLineSending, ALineThatHasHungUpFails)
{
    ASSERT_TRUE(open());
    overfill();
    const auto sent = logged();
    const auto log = std::make_shared<EventLog>();
    line->addObserver(log);
    peer.hangUp();
    send(1);
    EXPECT_EQ(capture.count(QStringLiteral("Send failed")), frames.size() - sent);
    EXPECT_EQ(logged(), sent);
    EXPECT_EQ(log->all(EventLog::Kind::SendFailed).size(),
              static_cast<std::size_t>(frames.size() - sent));
    EXPECT_EQ(looksOfClose(), 1);
}

TEST_F(SerialLineSending, WhatWaitsIsBounded)
{
    ASSERT_TRUE(open());
    const auto log = std::make_shared<EventLog>();
    line->addObserver(log);
    const QByteArray frame(1024 * 1024, 'x');
    const auto most = ReceiveBuffer::limit / frame.size() + 1;
    for (int i = 0; i < most + 2; ++i) {
        line->sendComData(frame);
    }
    EXPECT_EQ(capture.lines(),
              QStringList({QStringLiteral("Send failed"), QStringLiteral("Send failed")}));
    EXPECT_EQ(log->bytes(EventLog::Kind::SendFailed), frame + frame);
    EXPECT_EQ(logged(), 0);
    peer.hangUp();
    line->closeSerialPort();
    EXPECT_EQ(capture.count(QStringLiteral("Send failed")), most + 2);
}

TEST_F(SerialLineSending, WhatWaitsMayReachTheBound)
{
    ASSERT_TRUE(open());
    const auto log = std::make_shared<EventLog>();
    line->addObserver(log);
    qsizetype sent = 0;
    const auto waiting = [&] { return sent - log->bytes(EventLog::Kind::Sent).size(); };
    while (waiting() < ReceiveBuffer::limit) { // the line may take some of it yet
        const QByteArray frame(static_cast<int>(ReceiveBuffer::limit - waiting()), 'x');
        line->sendComData(frame);
        sent += frame.size();
    }
    line->sendComData("last");
    EXPECT_TRUE(log->all(EventLog::Kind::SendFailed).empty());
    line->sendComData("more");
    EXPECT_EQ(log->bytes(EventLog::Kind::SendFailed), "more");
    peer.hangUp();
}

TEST_F(SerialLineSending, AnEmptyFrameIsSent)
{
    ASSERT_TRUE(open());
    errno = EINTR; // of an earlier call
    line->sendComData(QByteArray());
    EXPECT_EQ(hostqueue::logLines(), QStringList(QStringLiteral("Send successful:")));
}

TEST_F(SerialLineSending, OutputHeldByFlowControlIsDropped)
{
    ASSERT_TRUE(open(QSerialPort::HardwareControl));
    send(1);
    uart.plugged = true;
    uart.queued = 19;
    EXPECT_LT(closeTakes(), milliseconds(7000)); // 800 and a busy machine
    EXPECT_EQ(uart.dropped, 1);
    EXPECT_FALSE(peer.settings().c_cflag & CRTSCTS); // what is in the UART holds no close either
}

TEST_F(SerialLineSending, OutputHeldInTheUartIsDropped)
{
    ASSERT_TRUE(open(QSerialPort::HardwareControl));
    uart.plugged = true;
    uart.looksToFifo = 1000000;
    EXPECT_LT(closeTakes(), milliseconds(20000));
    EXPECT_EQ(uart.dropped, 1);
    EXPECT_FALSE(peer.settings().c_cflag & CRTSCTS);
}

TEST_F(SerialLineSending, OutputOnASlowLineIsWaitedFor)
{
    ASSERT_TRUE(open(QSerialPort::HardwareControl));
    uart.plugged = true;
    uart.queued = 300; // at 5 ms and more each: longer than a line that is held gets
    uart.atLook = [look = 0]() mutable { uart.perLook = ++look == 200 ? 0 : 1; };
    uart.looksToFifo = 302; // one look behind the last byte: more of them may look like a held line
    EXPECT_GT(closeTakes(), milliseconds(1000));
    EXPECT_EQ(uart.queued, 0);
    EXPECT_EQ(uart.dropped, 0);
    EXPECT_TRUE(peer.settings().c_cflag & CRTSCTS);
}

// Another speed would garble what is still on its way.
TEST_F(SerialLineSending, TheCloseLeavesTheLinesSettings)
{
    termios before = peer.settings();
    ASSERT_NE(cfgetospeed(&before), speed_t(B9600));
    ASSERT_TRUE(open());
    line->closeSerialPort();
    const termios after = peer.settings();
    EXPECT_EQ(cfgetospeed(&after), speed_t(B9600));
}
