// SPDX-License-Identifier: MIT
#include "processstate.h"
#include "receivebuffer.h"

#include <gtest/gtest.h>
#include <malloc.h>
#include <rapidcheck/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>

namespace
{

double secondsPerTake(int backlog)
{
    ReceiveBuffer buffer;
    buffer.append(QByteArray(backlog, 'x'));
    constexpr int takes = 200;
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < takes; ++i) {
        buffer.take(19);
    }
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count() / takes;
}

} // namespace

RC_GTEST_PROP(ReceiveBuffer, BehavesAsAPlainByteArray, ())
{
    ReceiveBuffer buffer;
    QByteArray model;
    const int steps = *rc::gen::inRange(1, 200);
    char next = 0;
    for (int step = 0; step < steps; ++step) {
        const int count = *rc::gen::inRange(-3, 20000);
        switch (*rc::gen::inRange(0, 5)) {
        case 0:
        case 1: {
            const QByteArray data(qMax(count, 0), next++);
            buffer.append(data);
            model.append(data);
            break;
        }
        case 2:
            RC_ASSERT(buffer.peek(count) == model.left(qMax(count, 0)));
            break;
        case 3:
            RC_ASSERT(buffer.take(count) == model.left(qMax(count, 0)));
            model.remove(0, qMax(count, 0));
            break;
        default:
            buffer.discard(count);
            model.remove(0, qMax(count, 0));
            break;
        }
        RC_ASSERT(buffer.size() == model.size());
    }
    RC_ASSERT(buffer.peek(1 << 30) == model);
    buffer.clear();
    RC_ASSERT(buffer.size() == 0);
}

TEST(ReceiveBuffer, CopiesAreTheCallersOwn)
{
    ReceiveBuffer buffer;
    buffer.append("abcdef");
    QByteArray peeked = buffer.peek(6);
    const QByteArray taken = buffer.take(3);
    peeked[3] = 'x';
    buffer.append("ghi");
    EXPECT_EQ(taken, QByteArray("abc"));
    EXPECT_EQ(buffer.peek(100), QByteArray("defghi"));
}

TEST(ReceiveBuffer, TakingDoesNotMoveTheBacklog)
{
    // A buffer that shifts its tail needs thousands of times as long here.
    const auto best = [](int backlog) {
        double seconds = secondsPerTake(backlog);
        for (int i = 0; i < 5; ++i) { // another process may have had the processor
            seconds = std::min(seconds, secondsPerTake(backlog));
        }
        return seconds;
    };
    EXPECT_LT(best(64 * 1024 * 1024), 20 * best(4 * 1024) + 2e-5);
}

TEST(ReceiveBuffer, ConsumedBytesGiveTheirMemoryBack)
{
    ReceiveBuffer buffer;
    buffer.append("x"); // never empty from here on
    const QByteArray chunk(64 * 1024, 'y');
    const long before = processstate::residentKiB();
    for (int i = 0; i < 2000; ++i) {
        buffer.append(chunk);
        buffer.discard(chunk.size());
    }
    EXPECT_LT(processstate::residentKiB() - before, 16 * 1024);
    EXPECT_EQ(buffer.peek(10), QByteArray("y"));
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__) // they need memory themselves
TEST(ReceiveBuffer, AFullBufferTakesLittleMoreThanItsBytes)
{
    ReceiveBuffer buffer;
    const QByteArray chunk(4096, 'y');
    const long before = processstate::residentKiB();
    while (!buffer.isFull()) {
        buffer.append(chunk);
    }
    for (int i = 0; i < 20000; ++i) { // held at the limit, as a flood holds it
        buffer.discard(chunk.size());
        buffer.append(chunk);
    }
    EXPECT_EQ(buffer.size(), ReceiveBuffer::limit);
    EXPECT_LT(processstate::residentKiB() - before, 24 * 1024);
}

TEST(ReceiveBuffer, NothingOfAFloodIsKept)
{
    const auto allocated = [] {
        const auto info = mallinfo2();
        return info.uordblks + info.hblkhd;
    };
    using Empty = void (*)(ReceiveBuffer&);
    const Empty all[] = {[](ReceiveBuffer& buffer) { buffer.clear(); },
                         [](ReceiveBuffer& buffer) { buffer.discard(buffer.size()); },
                         [](ReceiveBuffer& buffer) { buffer.take(buffer.size()); }};
    for (const Empty empty : all) {
        const std::size_t before = allocated();
        ReceiveBuffer buffer;
        const QByteArray chunk(4096, 'y');
        while (!buffer.isFull()) {
            buffer.append(chunk);
        }
        EXPECT_GT(allocated() - before, std::size_t{ReceiveBuffer::limit});
        EXPECT_LT(allocated() - before, std::size_t{ReceiveBuffer::limit} * 5 / 4);
        empty(buffer);
        EXPECT_LT(allocated() - before, std::size_t{64} * 1024);
    }
}
#endif

TEST(ReceiveBuffer, WriterAndConsumerSeeEveryByteInOrder)
{
    ReceiveBuffer buffer;
    constexpr int total = 1000000;
    std::atomic<bool> wrong{false};
    std::thread consumer([&] {
        quint8 expected = 0;
        for (qsizetype seen = 0; seen < total;) {
            const QByteArray taken = buffer.take(1000);
            for (const char byte : taken) {
                wrong = wrong || static_cast<quint8>(byte) != expected++;
            }
            seen += taken.size();
        }
    });
    quint8 next = 0;
    for (int written = 0; written < total; written += 500) {
        char chunk[500];
        for (char& byte : chunk) {
            byte = static_cast<char>(next++);
        }
        buffer.append(chunk, sizeof chunk);
    }
    consumer.join();
    EXPECT_FALSE(wrong);
    EXPECT_EQ(buffer.size(), 0);
}

TEST(ReceiveBuffer, MayBeClearedBesideAWriter)
{
    ReceiveBuffer buffer;
    std::atomic<bool> done{false};
    std::thread writer([&] {
        for (int i = 0; i < 20'000; ++i) {
            buffer.append(QByteArray(1000, 'x'));
        }
        done = true;
    });
    while (!done) {
        buffer.clear();
    }
    writer.join();
    EXPECT_EQ(buffer.size() % 1000, 0);
}
