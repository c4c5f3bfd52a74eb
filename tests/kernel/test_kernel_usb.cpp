// SPDX-License-Identifier: MIT
#include "core_usb.h"

#include "biz_cmdswork.h"
#include "blocksintime.h"
#include "gadgetdevice.h"
#include "hostqueue.h"
#include "messagecapture.h"
#include "processstate.h"
#include "receivebuffer.h"
#include "replybytes.h"
#include "uhiddevice.h"

#include "eventually.h"

#include <gtest/gtest.h>

#include <QFile>

#include <unistd.h>

// Runs as root on a kernel of its own: see runinvm.py.

namespace
{

constexpr quint16 vendor = 0x04B4;
constexpr quint16 plainProduct = 0x2000;
constexpr quint16 updateProduct = 0x1008;

QByteArray padded(const QByteArray& bytes)
{
    return bytes.leftJustified(KernelHid::reportData, '\0');
}

model_Protocoldata command(quint8 cmd, quint8 dat1, int blockSize)
{
    model_Protocoldata record;
    record.CMD = cmd;
    record.DAT1 = dat1;
    record.arryDatablock = replybytes::block(blockSize);
    return record;
}

// Whether a thread of this process is in a wait that nothing interrupts.
bool isInKernel(pid_t thread)
{
    QFile state(QStringLiteral("/proc/self/task/%1/stat").arg(thread));
    return state.open(QIODevice::ReadOnly) && state.readAll().contains(") D ");
}

} // namespace

template <class Device>
class KernelUsb : public ::testing::Test
{
protected:
    KernelUsb() { hostqueue::clear(); }

    static bool queued(std::size_t count)
    {
        return eventually([count] { return hostqueue::size() >= count; });
    }
    static bool deliver(KernelHid& device, const QByteArray& bytes)
    {
        bool isTaken = true;
        for (int start = 0; start < bytes.size(); start += KernelHid::reportData) {
            isTaken = device.send(padded(bytes.mid(start, KernelHid::reportData))) && isTaken;
        }
        return isTaken;
    }
    // Delivers a reply and its block in time, which makes so many.
    bool joins(KernelHid& device, const QByteArray& bytes, std::size_t count)
    {
        return blockComesInTime(
            [&] {
                messages.clear();
                EXPECT_TRUE(deliver(device, bytes));
            },
            [count] { return hostqueue::size() >= count; },
            [this] {
                return !messages.lines().filter(QStringLiteral("CheckBlock default:")).isEmpty();
            });
    }

    MessageCapture messages;
    Core_USB line;
};

class KernelClose : public KernelUsb<GadgetDevice>
{
};

using Devices = ::testing::Types<UhidDevice, GadgetDevice>;
TYPED_TEST_SUITE(KernelUsb, Devices);

TYPED_TEST(KernelUsb, OpensWhatIsThere)
{
    EXPECT_FALSE(this->line.openUSB(vendor, plainProduct));
    TypeParam device(vendor, plainProduct);
    EXPECT_FALSE(this->line.openUSB(vendor, plainProduct + 1));
    EXPECT_TRUE(this->line.openUSB(vendor, plainProduct));
}

TYPED_TEST(KernelUsb, SendsReports)
{
    TypeParam device(vendor, plainProduct);
    ASSERT_TRUE(this->line.openUSB(vendor, plainProduct));
    auto record = command(0x9A, 0xA0, 150);
    const QByteArray frame = this->line.produceCmds(record);
    this->line.sendDatatoDevice(&record);
    ASSERT_TRUE(eventually([&] { return device.written().size() == 3; }));
    EXPECT_EQ(device.written(),
              (std::vector<QByteArray>{frame.left(64), frame.mid(64, 64), padded(frame.mid(128))}));
}

TYPED_TEST(KernelUsb, SendsUpdatesAligned)
{
    TypeParam device(vendor, updateProduct);
    ASSERT_TRUE(this->line.openUSB(vendor, updateProduct));
    auto record = command(0x9A, 0xA4, 128);
    const QByteArray frame = this->line.produceCmds(record);
    this->line.sendDatatoDevice(&record);
    ASSERT_TRUE(eventually([&] { return device.written().size() == 3; }));
    EXPECT_EQ(device.written(), (std::vector<QByteArray>{padded(frame.left(19)), frame.mid(19, 64),
                                                         frame.mid(83, 64)}));
}

TYPED_TEST(KernelUsb, RepliesAndBlocksArrive)
{
    TypeParam device(vendor, plainProduct);
    ASSERT_TRUE(this->line.openUSB(vendor, plainProduct));
    const QByteArray fixed = replybytes::block(145);
    const QByteArray announced = replybytes::block(200);
    ASSERT_TRUE(this->deliver(device, replybytes::text(0x10, 0x20)));
    ASSERT_TRUE(this->queued(1));
    ASSERT_TRUE(this->joins(device, replybytes::text(0x8B, 0x05) + fixed, 2));
    ASSERT_TRUE(this->joins(device, replybytes::text(0xF1, 0x01, 200, 0) + announced, 3));
    const auto records = hostqueue::records();
    EXPECT_EQ(records[0].strKey2, QStringLiteral("USB"));
    EXPECT_EQ(records[1].arryDatablock, fixed);
    EXPECT_EQ(records[2].arryDatablock, announced);
    EXPECT_EQ(records[2].bKeyFlag, 2);
}

TYPED_TEST(KernelUsb, AnUnplugWhileSendingIsSilence)
{
    const int threads = processstate::threads();
    for (int round = 0; round < 3; ++round) {
        TypeParam device(vendor, plainProduct);
        ASSERT_TRUE(this->line.openUSB(vendor, plainProduct)) << round;
        std::atomic<bool> isLoaded{true};
        const auto load = [&] {
            auto record = command(0x10, 0x20, 100);
            while (isLoaded) {
                this->line.sendDatatoDevice(&record);
            }
        };
        std::thread first(load);
        std::thread second(load);
        EXPECT_TRUE(eventually([&] { return device.written().size() > 4; }));
        device.unplug();
        EXPECT_TRUE(
            eventually([&] { return this->messages.count(QStringLiteral("Send failed")) > 10; }));
        isLoaded = false;
        first.join();
        second.join();
        this->messages.clear();
    }
    this->line.closeUSB();
    EXPECT_TRUE(eventually([&] { return processstate::threads() == threads; }));
}

TYPED_TEST(KernelUsb, ReopensAfterAnUnplug)
{
    {
        TypeParam device(vendor, plainProduct);
        ASSERT_TRUE(this->line.openUSB(vendor, plainProduct));
    }
    EXPECT_FALSE(this->line.openUSB(vendor, plainProduct));
    TypeParam device(vendor, plainProduct);
    ASSERT_TRUE(this->line.openUSB(vendor, plainProduct));
    ASSERT_TRUE(this->deliver(device, replybytes::text(0x10, 0x20)));
    EXPECT_TRUE(this->queued(1));
}

TEST_F(KernelClose, DoesNotWaitForAReportThatIsStuck)
{
    GadgetDevice device(vendor, plainProduct);
    ASSERT_TRUE(line.openUSB(vendor, plainProduct));
    const int descriptors = processstate::descriptors();
    device.takeReports(false);
    std::atomic<bool> isBack{false};
    std::atomic<pid_t> senderId{0};
    const auto start = std::chrono::steady_clock::now();
    std::thread sender([&] {
        senderId = gettid();
        line.sendUSBData(QByteArray(1000, 'x'));
        isBack = true;
    });
    int looks = 0; // in a row at a sender in the kernel: it also is for a report that is taken
    EXPECT_TRUE(eventually([&] {
        looks = isInKernel(senderId) ? looks + 1 : 0;
        return looks == 200;
    }));
    line.closeUSB();
    const bool wasBack = isBack;
    const int left = processstate::descriptors();
    // On a busy machine the kernel's 5 s may be over by now.
    if (std::chrono::steady_clock::now() - start < std::chrono::seconds(5)) {
        EXPECT_FALSE(wasBack);
        EXPECT_EQ(left, descriptors); // left to the sender
    }
    sender.join();
    EXPECT_EQ(processstate::descriptors(), descriptors - 2);
    EXPECT_EQ(messages.lines(), QStringList{QStringLiteral("Send failed")});
    device.takeReports(true);
    EXPECT_TRUE(line.openUSB(vendor, plainProduct));
    line.sendUSBData("again");
    EXPECT_TRUE(eventually([&device] { return device.written().back() == padded("again"); }));
}

TEST(KernelTwins, OneOfTwoEqualDevicesIsReadAndWritten)
{
    hostqueue::clear();
    UhidDevice first(vendor, plainProduct);
    UhidDevice second(vendor, plainProduct);
    Core_USB line;
    ASSERT_TRUE(line.openUSB(vendor, plainProduct));
    line.sendUSBData("x");
    const auto heard = [](const UhidDevice& device) { return device.written().size(); };
    ASSERT_TRUE(eventually([&] { return heard(first) + heard(second) == 1; }));
    UhidDevice& opened = heard(first) == 1 ? first : second;
    UhidDevice& other = heard(first) == 1 ? second : first;
    ASSERT_TRUE(other.send(padded(replybytes::text(0x10, 0x21))));
    ASSERT_TRUE(opened.send(padded(replybytes::text(0x10, 0x20))));
    ASSERT_TRUE(eventually([] { return hostqueue::size() == 1; }));
    EXPECT_EQ(hostqueue::records().front().DAT1, 0x20);
    EXPECT_FALSE(eventually([] { return hostqueue::size() > 1; }, std::chrono::seconds(1)));
}

TEST(KernelQueue, KeepsTheOldestReports)
{
    hostqueue::clear();
    constexpr int sent = 100;
    constexpr std::size_t kept = 63;
    UhidDevice device(vendor, plainProduct);
    Core_USB line;
    ASSERT_TRUE(line.openUSB(vendor, plainProduct));
    {
        // With a full buffer nothing is read meanwhile, except by a read that was under way.
        const std::lock_guard host(biz_CMDSWork::receiveHexCmdlock);
        line.appendBuffData(replybytes::text(0x79, 0x0C)); // the parser waits for the host with it
        ASSERT_TRUE(eventually([&line] { return line.getBuffData(1).isEmpty(); }));
        line.appendBuffData(QByteArray(ReceiveBuffer::limit, 'x'));
        for (int i = 1; i <= sent; ++i) {
            ASSERT_TRUE(device.send(padded(replybytes::text(0x10, 0x20, 0, 0, i))));
        }
        while (line.getBuffData(1) == "x") {
            line.takeBuffData(32768);
        }
    }
    EXPECT_TRUE(eventually([] { return hostqueue::size() >= 1 + kept; }));
    const auto records = hostqueue::records();
    for (std::size_t i = 1; i <= kept; ++i) {
        EXPECT_EQ(records[i].ADDR, i);
    }
    EXPECT_FALSE(eventually([] { return hostqueue::size() > 2 + kept; }, std::chrono::seconds(1)));
}
