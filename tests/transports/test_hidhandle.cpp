// SPDX-License-Identifier: MIT
#include "hidhandle.h"
#include "linktap.h"

#include "emulatedhid.h"
#include "eventually.h"
#include "openhidnodes.h"
#include "receivebuffer.h"
#include "slowerrortexts.h"

#include <gtest/gtest.h>

#include <thread>

namespace
{

constexpr quint16 vendor = 0x1209;
constexpr quint16 product = 0x0001;
const QByteArray emptyReport;

bool readsUntil(HidHandle& handle, ReceiveBuffer& buffer, int size)
{
    return eventually([&] { return handle.readInto(buffer, LinkTap()) && buffer.size() == size; });
}

} // namespace

TEST(HidHandle, OpensBesideEachOther)
{
    HidTestbed testbed;
    EmulatedHid device(testbed, vendor, product);
    constexpr int attempts = 100;
    slowerrortexts::isOn = true;
    std::atomic<int> opened{0};
    const auto open = [&opened] {
        for (int i = 0; i < attempts; ++i) {
            EXPECT_EQ(HidHandle::open(vendor, product + 1), nullptr);
        }
        opened += HidHandle::open(vendor, product) != nullptr ? 1 : 0;
    };
    std::thread first(open);
    std::thread second(open);
    first.join();
    second.join();
    slowerrortexts::isOn = false;
    EXPECT_EQ(opened, 2);
    EXPECT_GE(slowerrortexts::count, 2 * attempts);
    EXPECT_EQ(slowerrortexts::mostBeside, 0);
}

TEST(HidHandle, BothHandlesAreOfOneOfTwoEqualDevices)
{
    HidTestbed testbed;
    EmulatedHid first(testbed, vendor, product);
    EmulatedHid second(testbed, vendor, product);
    for (int round = 0; round < 10; ++round) {
        const auto handle = HidHandle::open(vendor, product);
        ASSERT_NE(handle, nullptr);
        EXPECT_EQ(first.openFiles() * second.openFiles(), 0);
        EmulatedHid& opened = first.openFiles() > 0 ? first : second;
        EXPECT_EQ(opened.openFiles(), 2);
        const auto before = opened.written().size();
        EXPECT_TRUE(handle->write(emptyReport));
        EXPECT_EQ(opened.written().size(), before + 1);
        ASSERT_TRUE(opened.send("abc"));
        ReceiveBuffer buffer;
        EXPECT_TRUE(readsUntil(*handle, buffer, 3));
        handle->close();
        EXPECT_TRUE(eventually([&opened] { return opened.openFiles() == 0; }));
    }
}

TEST(HidHandle, ASecondOpenThatFailsLeavesNothingOpen)
{
    HidTestbed testbed;
    EmulatedHid device(testbed, vendor, product);
    device.allowOpens(1);
    EXPECT_EQ(HidHandle::open(vendor, product), nullptr);
    EXPECT_EQ(openHidNodes(), 0);
    EXPECT_TRUE(eventually([&device] { return device.openFiles() == 0; }));
}

TEST(HidHandle, ReadsDoNotWaitForAWriteThatFails)
{
    HidTestbed testbed;
    EmulatedHid device(testbed, vendor, product);
    const auto handle = HidHandle::open(vendor, product);
    ASSERT_NE(handle, nullptr);
    ReceiveBuffer buffer;
    slowerrortexts::isOn = true;
    device.holdWrites(true);
    std::thread writer([&handle] { EXPECT_FALSE(handle->write(emptyReport)); });
    ASSERT_TRUE(eventually([&device] { return device.held() == 1; }));
    device.unplug();
    for (int reads = 0; reads < 10; ++reads) {
        EXPECT_TRUE(handle->readInto(buffer, LinkTap())); // fails
    }
    EXPECT_GE(slowerrortexts::count, 10);
    device.holdWrites(false);
    writer.join();
    slowerrortexts::isOn = false;
}

TEST(HidHandle, AWriteNeverWaitsForARead)
{
    HidTestbed testbed;
    EmulatedHid device(testbed, vendor, product);
    const auto handle = HidHandle::open(vendor, product);
    ASSERT_NE(handle, nullptr);
    ReceiveBuffer buffer;
    std::atomic<bool> isRunning{true};
    std::atomic<int> reads{0};
    std::thread reader([&] {
        while (isRunning && handle->readInto(buffer, LinkTap())) {
            ++reads;
        }
    });
    // A read takes 100 ms, and a write that waited for it would end behind it. On a busy machine a
    // write may take so long too, but not every one.
    constexpr int wanted = 5;
    for (const bool fails : {false, true}) {
        device.refuseWrites(fails);
        int during = 0;
        for (int i = 0; i < 100 && during < wanted; ++i) {
            const int ended = reads;
            ASSERT_TRUE(eventually([&] { return reads > ended; }));
            std::this_thread::sleep_for(std::chrono::milliseconds(20)); // the next one has begun
            const int before = reads;
            EXPECT_NE(handle->write(emptyReport), fails);
            during += reads == before ? 1 : 0;
        }
        EXPECT_EQ(during, wanted) << "writes that ended during the read that they began in";
    }
    isRunning = false;
    reader.join();
}

TEST(HidHandle, WhatTheWritersHandleCannotKeepIsRead)
{
    HidTestbed testbed;
    EmulatedHid device(testbed, vendor, product);
    const auto handle = HidHandle::open(vendor, product);
    const auto other = HidHandle::open(vendor, product);
    ASSERT_NE(handle, nullptr);
    ASSERT_NE(other, nullptr);
    ReceiveBuffer buffer;
    ReceiveBuffer copy; // each open file has the reports for itself
    for (int i = 1; i <= 2 * EmulatedHid::queueLength; ++i) {
        ASSERT_TRUE(device.send("x"));
        ASSERT_TRUE(readsUntil(*handle, buffer, i)) << i;
        ASSERT_TRUE(readsUntil(*other, copy, i)) << i;
    }
}

// Under ThreadSanitizer: what the emulation shares is below its lock, all of it.
TEST(HidHandle, ReportsPassBetweenThreads)
{
    HidTestbed testbed;
    std::atomic<int> heard{0};
    EmulatedHid device(testbed, vendor, product,
                       [&heard](const std::string& report) { heard += report[1] == 'x' ? 1 : 0; });
    const auto handle = HidHandle::open(vendor, product);
    ASSERT_NE(handle, nullptr);
    constexpr int count = 100;
    std::thread writer([&handle] {
        const QByteArray report("x");
        for (int i = 0; i < count; ++i) {
            EXPECT_TRUE(handle->write(report));
        }
    });
    ReceiveBuffer buffer;
    std::atomic<bool> isRunning{true};
    std::thread reader([&] {
        while (isRunning && handle->readInto(buffer, LinkTap())) {
        }
    });
    const QByteArray reply(EmulatedHid::reportData, 'r');
    for (int i = 1; i <= count; ++i) {
        EXPECT_TRUE(device.sendPadded(reply));
        EXPECT_TRUE(eventually([&] { return buffer.size() == i * EmulatedHid::reportData; })) << i;
    }
    writer.join();
    isRunning = false;
    reader.join();
    EXPECT_TRUE(eventually([&heard] { return heard == count; }));
    EXPECT_EQ(device.written().size(), static_cast<std::size_t>(count));
}

TEST(HidHandle, ClosesAfterTheWrite)
{
    HidTestbed testbed;
    EmulatedHid device(testbed, vendor, product);
    auto handle = HidHandle::open(vendor, product);
    ASSERT_NE(handle, nullptr);
    device.holdWrites(true);
    std::thread writer([&] { EXPECT_TRUE(handle->write(emptyReport)); });
    ASSERT_TRUE(eventually([&device] { return device.held() == 1; }));
    std::atomic<bool> isReleased{false};
    std::atomic<bool> isPatient{true}; // after a second the close leaves the handles to the writer
    std::thread closer([&] {
        const auto start = std::chrono::steady_clock::now();
        handle->close();
        const bool wasReleased = isReleased;
        isPatient = std::chrono::steady_clock::now() - start < std::chrono::seconds(1);
        EXPECT_TRUE(wasReleased || !isPatient);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    isReleased = true;
    device.holdWrites(false);
    closer.join();
    writer.join();
    EXPECT_FALSE(handle->write(emptyReport));
    if (!isPatient) {
        handle.reset();
    }
    EXPECT_TRUE(eventually([&device] { return device.openFiles() == 0; }));
}

TEST(HidHandle, AStuckWriteTakesTheHandlesWithIt)
{
    HidTestbed testbed;
    EmulatedHid device(testbed, vendor, product);
    auto handle = HidHandle::open(vendor, product);
    ASSERT_NE(handle, nullptr);
    device.holdWrites(true);
    std::thread writer([owned = handle] { EXPECT_TRUE(owned->write(emptyReport)); });
    ASSERT_TRUE(eventually([&device] { return device.held() == 1; }));
    const auto start = std::chrono::steady_clock::now();
    handle->close();
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(8));
    ReceiveBuffer buffer;
    EXPECT_FALSE(handle->readInto(buffer, LinkTap()));
    EXPECT_EQ(device.openFiles(), 2);
    const std::weak_ptr<HidHandle> left = handle;
    handle.reset();
    EXPECT_FALSE(left.expired());
    device.holdWrites(false);
    writer.join();
    EXPECT_TRUE(left.expired());
    EXPECT_TRUE(eventually([&device] { return device.openFiles() == 0; }));
}

TEST(HidHandle, NothingIsReadAfterTheClose)
{
    HidTestbed testbed;
    EmulatedHid device(testbed, vendor, product);
    const auto handle = HidHandle::open(vendor, product);
    ASSERT_NE(handle, nullptr);
    ReceiveBuffer buffer;
    ASSERT_TRUE(device.send("abc"));
    EXPECT_TRUE(handle->readInto(buffer, LinkTap()));
    EXPECT_EQ(buffer.take(10), "abc");
    EXPECT_TRUE(handle->readInto(buffer, LinkTap())); // nothing comes
    handle->close();
    handle->close();
    EXPECT_FALSE(handle->readInto(buffer, LinkTap()));
    EXPECT_EQ(buffer.size(), 0);
}
