// SPDX-License-Identifier: MIT
#include "osdrecords.h"

#include "core_osd_manage.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <memory>
#include <thread>

namespace
{

constexpr int rounds = 300;

} // namespace

TEST(OsdRecords, TakersComeAndGoWhileRecordsPass)
{
    OsdRecords records;
    std::array<int, 2> taken{}; // each by one thread at a time: the records' lock sees to it
    const auto comeAndGo = [&records](int& count) {
        for (int i = 0; i < rounds; ++i) {
            records.add(&count, [&count](const model_OsdParam&) { ++count; });
            records.remove(&count);
        }
        records.add(&count, [&count](const model_OsdParam&) { ++count; });
    };
    std::thread one(comeAndGo, std::ref(taken[0]));
    std::thread other(comeAndGo, std::ref(taken[1]));
    for (int i = 0; i < rounds; ++i) {
        records.onSendDatatoDevice(model_OsdParam());
    }
    one.join();
    other.join();
    const std::array<int, 2> before = taken;
    records.onSendDatatoDevice(model_OsdParam());
    EXPECT_EQ(taken[0], before[0] + 1);
    EXPECT_EQ(taken[1], before[1] + 1);
}

TEST(OsdRecords, ManagersComeAndGoOnAnyThread)
{
    const auto shared = std::make_unique<core_Osd_Manage>();
    OsdRecords::setShared(shared.get());
    const auto records = OsdRecords::shared();
    const auto comeAndGo = [] {
        for (int i = 0; i < rounds; ++i) {
            const core_Osd_Manage manager;
        }
    };
    std::thread one(comeAndGo);
    std::thread other(comeAndGo);
    for (int i = 0; i < rounds; ++i) {
        EXPECT_EQ(OsdRecords::shared(), records);
    }
    one.join();
    other.join();
    EXPECT_NE(records, nullptr);
    OsdRecords::setShared(nullptr);
    EXPECT_EQ(OsdRecords::shared(), nullptr);
}
