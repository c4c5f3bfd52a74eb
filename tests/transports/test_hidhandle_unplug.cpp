// SPDX-License-Identifier: MIT
#include "emulatedhid.h"
#include "hidhandle.h"
#include "linktap.h"
#include "receivebuffer.h"
#include "slowerrortexts.h"

#include <gtest/gtest.h>

#include <thread>

namespace
{

constexpr quint16 vendor = 0x1209;
constexpr quint16 product = 0x0001;

struct Load {
    explicit Load(const std::shared_ptr<HidHandle>& handle)
        : first([this, handle] { write(*handle); }), second([this, handle] { write(*handle); }),
          reader([this, handle] { read(*handle); })
    {
    }
    ~Load()
    {
        isRunning = false;
        first.join();
        second.join();
        reader.join();
    }

    void write(HidHandle& handle)
    {
        while (isRunning) {
            (handle.write(QByteArray()) ? successes : failures)++;
        }
    }
    void read(HidHandle& handle)
    {
        while (isRunning && handle.readInto(buffer, LinkTap())) {
        }
    }
    bool reached(const std::atomic<int>& count, int value) const
    {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(90);
        while (count < value && std::chrono::steady_clock::now() < end) {
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
        return count >= value;
    }

    std::atomic<bool> isRunning{true};
    std::atomic<int> successes{0};
    std::atomic<int> failures{0};
    ReceiveBuffer buffer;
    std::thread first;
    std::thread second;
    std::thread reader;
};

} // namespace

TEST(HidHandleUnplug, SurvivesUnplugsUnderLoad)
{
    HidTestbed testbed;
    for (int round = 0; round < UNPLUG_ROUNDS; ++round) {
        EmulatedHid device(testbed, vendor, product);
        const auto handle = HidHandle::open(vendor, product);
        ASSERT_NE(handle, nullptr) << round;
        slowerrortexts::isOn = true;
        {
            Load load(handle);
            ASSERT_TRUE(load.reached(load.successes, 2)) << round;
            if (round % 4 != 3) {
                device.unplug();
                ASSERT_TRUE(load.reached(load.failures, 6)) << round;
            }
            if (round % 2 == 1) {
                handle->close();
            }
        }
        slowerrortexts::isOn = false;
        EXPECT_FALSE(handle->write(QByteArray()));
    }
    EXPECT_GE(slowerrortexts::count, 3 * UNPLUG_ROUNDS);
}
