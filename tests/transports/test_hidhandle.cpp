// SPDX-License-Identifier: MIT
#include "hidhandle.h"

#include "emulatedhid.h"
#include "eventually.h"
#include "hidtestbed.h"
#include "receivebuffer.h"
#include "slowerrortexts.h"

#include <gtest/gtest.h>

#include <thread>

namespace
{

constexpr quint16 vendor = 0x1209;
constexpr quint16 product = 0x0001;

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

TEST(HidHandle, ReadsWaitForAWriteOnceTheyFail)
{
    HidTestbed testbed;
    EmulatedHid device(testbed, vendor, product);
    const auto handle = HidHandle::open(vendor, product);
    ASSERT_NE(handle, nullptr);
    ReceiveBuffer buffer;
    std::atomic<int> reads{0};
    std::atomic<bool> isRunning{true};
    slowerrortexts::isOn = true;
    device.holdWrites(true);
    std::thread writer([&handle] {
        const unsigned char report[HidHandle::reportLength] = {};
        EXPECT_FALSE(handle->write(report));
    });
    ASSERT_TRUE(eventually([&device] { return device.held() == 1; }));
    std::thread reader([&] {
        while (isRunning && handle->readInto(buffer)) {
            ++reads;
        }
    });
    device.unplug();
    EXPECT_TRUE(eventually([&reads] { return reads == 1; }));
    EXPECT_FALSE(eventually([&reads] { return reads > 1; }, std::chrono::milliseconds(100)));
    device.holdWrites(false);
    EXPECT_TRUE(eventually([&reads] { return reads > 10; }));
    isRunning = false;
    reader.join();
    writer.join();
    slowerrortexts::isOn = false;
}

TEST(HidHandle, ClosesAfterTheWrite)
{
    HidTestbed testbed;
    EmulatedHid device(testbed, vendor, product);
    const auto handle = HidHandle::open(vendor, product);
    ASSERT_NE(handle, nullptr);
    const unsigned char report[HidHandle::reportLength] = {};
    device.holdWrites(true);
    std::thread writer([&] { EXPECT_TRUE(handle->write(report)); });
    ASSERT_TRUE(eventually([&device] { return device.held() == 1; }));
    std::atomic<bool> isClosed{false};
    std::thread closer([&] {
        handle->close();
        isClosed = true;
    });
    EXPECT_FALSE(
        eventually([&isClosed] { return isClosed.load(); }, std::chrono::milliseconds(100)));
    device.holdWrites(false);
    closer.join();
    writer.join();
    EXPECT_FALSE(handle->write(report));
}

TEST(HidHandle, AWriteNeverWaitsForARead)
{
    HidTestbed testbed;
    EmulatedHid device(testbed, vendor, product);
    const auto handle = HidHandle::open(vendor, product);
    ASSERT_NE(handle, nullptr);
    ReceiveBuffer buffer;
    std::atomic<bool> isRunning{true};
    std::thread reader([&] {
        while (isRunning && handle->readInto(buffer)) {
        }
    });
    const unsigned char report[HidHandle::reportLength] = {};
    const auto writeAll = [&] {
        const auto start = std::chrono::steady_clock::now();
        for (int i = 0; i < 100; ++i) {
            EXPECT_TRUE(handle->write(report));
        }
        return std::chrono::steady_clock::now() - start;
    };
    EXPECT_LT(writeAll(), std::chrono::seconds(5)); // 10 s if each waited for a read
    device.refuseWrites(true);
    EXPECT_FALSE(handle->write(report));
    device.refuseWrites(false);
    EXPECT_LT(writeAll(), std::chrono::seconds(5)); // a failure that has passed is forgotten
    isRunning = false;
    reader.join();
}

TEST(HidHandle, NothingIsReadAfterTheClose)
{
    HidTestbed testbed;
    EmulatedHid device(testbed, vendor, product);
    const auto handle = HidHandle::open(vendor, product);
    ASSERT_NE(handle, nullptr);
    ReceiveBuffer buffer;
    ASSERT_TRUE(device.send("abc"));
    EXPECT_TRUE(handle->readInto(buffer));
    EXPECT_EQ(buffer.take(10), "abc");
    EXPECT_TRUE(handle->readInto(buffer)); // nothing comes
    handle->close();
    handle->close();
    EXPECT_FALSE(handle->readInto(buffer));
    EXPECT_EQ(buffer.size(), 0);
}
