// SPDX-License-Identifier: MIT
#include "eventually.h"
#include "lingeringclose.h"
#include "netns.h"
#include "processstate.h"
#include "tcplistener.h"
#include "threadrefusal.h"

#include <gtest/gtest.h>

#include <array>
#include <vector>

#include <linux/sockios.h>
#include <sys/ioctl.h>

namespace
{

// Both ends of a connection; the near one is to be closed.
struct Pair {
    explicit Pair(const TcpListener& listener)
    {
        EXPECT_EQ(connect(near, listener.name(), sizeof(sockaddr_in)), 0);
        far = listener.accept();
        EXPECT_GE(far, 0);
    }

    int near = socket(AF_INET, SOCK_STREAM, 0);
    int far = -1;
};

// How a read ends: 0 at a hang-up, -1 at a reset.
ssize_t readToTheEnd(int descriptor)
{
    std::array<char, 4096> bytes{};
    ssize_t size = 0;
    while ((size = recv(descriptor, bytes.data(), bytes.size(), 0)) > 0) {
    }
    return size;
}

class Lingering : public ::testing::Test
{
protected:
    void TearDown() override
    {
        EXPECT_TRUE(eventually([&] { return processstate::threads() == threads; }));
        EXPECT_TRUE(eventually([&] { return processstate::descriptors() == descriptors; }));
    }

    const TcpListener listener{200};
    const int threads = processstate::threads();
    const int descriptors = processstate::descriptors();
};

} // namespace

TEST_F(Lingering, ALateAnswerDoesNotResetTheConnection)
{
    const Pair pair(listener);
    ASSERT_EQ(send(pair.near, "abc", 3, 0), 3);
    ASSERT_EQ(send(pair.far, "unread", 6, 0), 6);
    lingeringclose::begin(pair.near);
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(send(pair.far, "OK1", 3, MSG_NOSIGNAL), 3);
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    EXPECT_EQ(readToTheEnd(pair.far), 0);
    EXPECT_EQ(processstate::descriptors(), descriptors + 2);
    close(pair.far);
}

TEST_F(Lingering, EndsByItself)
{
    const Pair pair(listener);
    lingeringclose::begin(pair.near, std::chrono::milliseconds(50));
    EXPECT_TRUE(eventually([&] { return processstate::threads() == threads; }));
    EXPECT_TRUE(eventually([&] { return processstate::descriptors() == descriptors + 1; }));
    EXPECT_EQ(readToTheEnd(pair.far), 0);
    close(pair.far);
}

TEST_F(Lingering, AFloodHoldsNobodyUp)
{
    const Pair flood(listener);
    const Pair other(listener);
    lingeringclose::begin(flood.near, std::chrono::seconds(1));
    std::thread sender([&flood] {
        const std::vector<char> much(std::size_t{1024} * 1024, 'f');
        while (send(flood.far, much.data(), much.size(), MSG_NOSIGNAL) > 0) {
        }
    });
    lingeringclose::begin(other.near);
    EXPECT_EQ(readToTheEnd(other.far), 0);
    close(other.far);
    sender.join(); // it is given up in the end
    close(flood.far);
}

TEST_F(Lingering, StaysOpenHoweverMuchThereIsToDrop)
{
    if (!netns::isolated()) {
        GTEST_SKIP() << "the right to make a network namespace is missing";
    }
    netns::enlargeReceiveBuffers();
    constexpr int much = 6 * 1024 * 1024; // more than is dropped at once
    const Pair pair(listener);
    const std::vector<char> flood(much, 'f');
    std::thread sender([&] { EXPECT_EQ(send(pair.far, flood.data(), much, MSG_NOSIGNAL), much); });
    EXPECT_TRUE(eventually([&] {
        int waiting = 0;
        return ioctl(pair.near, SIOCINQ, &waiting) == 0 && waiting == much;
    }));
    lingeringclose::begin(pair.near);
    sender.join();
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(send(pair.far, "b", 1, MSG_NOSIGNAL), 1);
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    EXPECT_EQ(readToTheEnd(pair.far), 0);
    close(pair.far);
}

TEST_F(Lingering, WhatCannotBeReadIsClosed)
{
    lingeringclose::begin(socket(AF_INET, SOCK_STREAM, 0));
    EXPECT_TRUE(eventually([&] { return processstate::descriptors() == descriptors; }));
}

TEST_F(Lingering, KeepsABoundedNumberOfDescriptors)
{
    constexpr int count = 150;
    constexpr int most = 128;
    std::vector<Pair> pairs;
    for (int i = 0; i < count; ++i) {
        pairs.emplace_back(listener);
        lingeringclose::begin(pairs.back().near);
        EXPECT_LE(processstate::descriptors(), descriptors + i + 1 + most);
    }
    EXPECT_EQ(processstate::descriptors(), descriptors + count + most);
    EXPECT_EQ(processstate::threads(), threads + 1);
    for (const Pair& pair : pairs) {
        EXPECT_EQ(readToTheEnd(pair.far), 0);
        close(pair.far);
    }
}

TEST_F(Lingering, WithoutAThreadItClosesAtOnce)
{
    const Pair pair(listener);
    const ThreadRefusal refusal;
    ASSERT_EQ(send(pair.near, "abc", 3, 0), 3);
    ASSERT_EQ(send(pair.far, "unread", 6, 0), 6);
    lingeringclose::begin(pair.near);
    EXPECT_EQ(processstate::descriptors(), descriptors + 1);
    EXPECT_EQ(readToTheEnd(pair.far), 0);
    close(pair.far);
}
