// SPDX-License-Identifier: MIT
#include "biz_cmdswork.h"
#include "core_serialport.h"

#include "eventually.h"
#include "hostqueue.h"
#include "messagecapture.h"
#include "receivebuffer.h"
#include "replybytes.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <thread>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

// Runs as root on a kernel of its own, with two UARTs that are wired to each other: see runinvm.py.

namespace
{

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr char hostsPort[] = "ttyS1";
constexpr char devicesPort[] = "/dev/ttyS2";

constexpr char xoff = 0x13;

// The device's end of the wire.
class Device
{
public:
    Device() : port(::open(devicesPort, O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC))
    {
        termios settings{};
        tcgetattr(port, &settings);
        cfmakeraw(&settings);
        cfsetspeed(&settings, B115200);
        settings.c_cflag |= CLOCAL | CREAD;
        settings.c_iflag |= IXON; // stops for the host
        tcsetattr(port, TCSANOW, &settings);
        tcflush(port, TCIOFLUSH);
    }
    ~Device() { ::close(port); }
    Device(const Device&) = delete;
    Device& operator=(const Device&) = delete;

    const QByteArray& received()
    {
        char chunk[4096];
        for (ssize_t size = 0; (size = read(port, chunk, sizeof chunk)) > 0;) {
            input.append(chunk, static_cast<int>(size));
        }
        return input;
    }

    int offer(const QByteArray& bytes) const
    {
        const ssize_t size = write(port, bytes.constData(), static_cast<std::size_t>(bytes.size()));
        return size > 0 ? static_cast<int>(size) : 0;
    }

private:
    int port;
    QByteArray input;
};

} // namespace

class KernelSerial : public ::testing::Test
{
protected:
    KernelSerial() { hostqueue::clear(); }

    bool open(QSerialPort::FlowControl flow)
    {
        return line.openSerialPort(QString::fromLatin1(hostsPort), QSerialPort::Baud115200,
                                   QSerialPort::OneStop, QSerialPort::NoParity, flow,
                                   QSerialPort::Data8);
    }

    QByteArray send(int blockSize)
    {
        model_Protocoldata record;
        record.arryDatablock = QByteArray(blockSize, 'b');
        line.sendDatatoDevice(&record);
        return line.produceCmds(record);
    }

    int queuedForLine()
    {
        int size = 0;
        ioctl(line.port().handle(), TIOCOUTQ, &size);
        return size;
    }

    milliseconds closeTakes()
    {
        const auto start = Clock::now();
        line.closeSerialPort();
        return std::chrono::duration_cast<milliseconds>(Clock::now() - start);
    }

    MessageCapture messages;
    Device device;
    Core_SerialPort line;
};

TEST_F(KernelSerial, WhatIsSentBeforeTheCloseArrivesWhole)
{
    for (const int blockSize : {0, 100, 3000}) { // a UART's buffer in the system takes 4096
        const auto before = device.received().size();
        ASSERT_TRUE(open(QSerialPort::NoFlowControl));
        const QByteArray frame = send(blockSize);
        EXPECT_EQ(
            hostqueue::countLog(QStringLiteral("Send successful:") + QString::fromLatin1(frame)),
            1);
        line.closeSerialPort();
        EXPECT_TRUE(eventually([&] { return device.received().size() >= before + frame.size(); }));
        EXPECT_TRUE(device.received().mid(before) == frame) << blockSize;
    }
}

TEST_F(KernelSerial, OutputThatTheDeviceHoldsIsDroppedWithinASecond)
{
    ASSERT_TRUE(open(QSerialPort::SoftwareControl));
    ASSERT_EQ(device.offer(QByteArray(1, xoff)), 1);
    ASSERT_TRUE(eventually([this] {
        send(0);
        std::this_thread::sleep_for(milliseconds(50));
        return queuedForLine() > 0;
    }));
    const auto took = closeTakes();
    std::printf("closing a held line: %lld ms\n", static_cast<long long>(took.count()));
    EXPECT_LT(took, milliseconds(20000)); // the kernel would take 30 s
    ASSERT_TRUE(open(QSerialPort::NoFlowControl));
    const QByteArray frame = send(3);
    EXPECT_TRUE(eventually([&] { return device.received().endsWith(frame); }));
}

TEST_F(KernelSerial, FlowControlHoldsBackADeviceThatFloods)
{
    constexpr int blockSize = 60000;
    const QByteArray bigReply = replybytes::text(0xF1, 0x12, blockSize & 0xff, blockSize >> 8) +
                                replybytes::block(blockSize);
    const QByteArray reply = replybytes::text(0x10, 0x20);
    constexpr int most = 1024 * 1024;
    constexpr std::chrono::seconds patience(300); // a UART is slow, and the machine emulated
    ASSERT_TRUE(open(QSerialPort::SoftwareControl));
    int filled = 0;
    int offered = 0;
    const auto flood = [&] { offered += device.offer(reply.mid(offered % reply.size())); };
    {
        const std::lock_guard hostIsBusy(biz_CMDSWork::receiveHexCmdlock);
        // A UART is slow: all but the end comes another way.
        for (; filled * bigReply.size() < ReceiveBuffer::limit; ++filled) {
            line.appendBuffData(bigReply);
        }
        auto moved = Clock::now();
        ASSERT_TRUE(eventually(
            [&] {
                const int before = offered;
                flood();
                moved = offered > before ? Clock::now() : moved;
                return Clock::now() - moved > milliseconds(3000) || offered > most;
            },
            patience));
        EXPECT_LT(offered, most);
    }
    const auto parsed = [&] { return static_cast<int>(hostqueue::size()) - filled; };
    EXPECT_TRUE(eventually(
        [&] {
            if (offered % reply.size() != 0) {
                flood();
            }
            return parsed() * reply.size() == offered;
        },
        patience))
        << parsed() << " replies of " << offered << " bytes";
    std::printf("held back after %d bytes on the line\n", offered);
}
