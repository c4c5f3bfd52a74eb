// SPDX-License-Identifier: MIT
#include "udplink.h"

#include "processstate.h"
#include "udppeer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <set>
#include <thread>
#include <vector>

namespace
{

QByteArray numbered(int size)
{
    QByteArray frame;
    for (int i = 0; i < size; ++i) {
        frame.append(static_cast<char>(i * 31 + i / 256));
    }
    return frame;
}

struct Sent {
    qint32 sum = 0;
    std::vector<QByteArray> pieces;
};

// A socket that answers as told, then with each piece's size.
Sent sendWith(const QByteArray& frame, std::vector<qint64> results)
{
    Sent sent;
    std::size_t next = 0;
    sent.sum = sendInPieces(frame, [&](const char* data, QByteArray::size_type size) -> qint64 {
        EXPECT_GE(data, frame.constData());
        EXPECT_LE(data + size, frame.constData() + frame.size());
        sent.pieces.emplace_back(data, size);
        return next < results.size() ? results[next++] : size;
    });
    return sent;
}

} // namespace

TEST(SendInPieces, SizesOfThePieces)
{
    const struct {
        int size;
        std::vector<int> pieces;
    } cases[] = {{0, {}},
                 {1, {1}},
                 {539, {539}},
                 {540, {540}},
                 {541, {540, 1}},
                 {1079, {540, 539}},
                 {1080, {540, 540}},
                 {1081, {540, 540, 1}},
                 {1620, {540, 540, 540}}};
    for (const auto& expected : cases) {
        const QByteArray frame = numbered(expected.size);
        const Sent sent = sendWith(frame, {});
        EXPECT_EQ(sent.sum, expected.size);
        ASSERT_EQ(sent.pieces.size(), expected.pieces.size()) << expected.size;
        QByteArray whole;
        for (std::size_t i = 0; i < sent.pieces.size(); ++i) {
            EXPECT_EQ(sent.pieces[i].size(), expected.pieces[i]);
            whole += sent.pieces[i];
        }
        EXPECT_EQ(whole, frame);
    }
}

TEST(SendInPieces, AFailedOrShortPieceIsFollowedByOneLastWriteFromTheSum)
{
    const QByteArray frame = numbered(1300);
    const Sent first = sendWith(frame, {-1, -1});
    EXPECT_EQ(first.sum, -2);
    ASSERT_EQ(first.pieces.size(), 2U);
    EXPECT_EQ(first.pieces[1], frame.mid(-1, 1300));
    EXPECT_EQ(first.pieces[1].size(), 1299);

    const Sent recovered = sendWith(frame, {-1});
    EXPECT_EQ(recovered.sum, 1298);

    const Sent second = sendWith(frame, {540, -1});
    ASSERT_EQ(second.pieces.size(), 3U);
    EXPECT_EQ(second.pieces[2], frame.mid(539, 760));
    EXPECT_EQ(second.sum, 540 - 1 + 760);

    const Sent last = sendWith(frame, {540, 540, -1});
    EXPECT_EQ(last.pieces.size(), 3U);
    EXPECT_EQ(last.sum, 1079);

    const Sent shorter = sendWith(frame, {100});
    ASSERT_EQ(shorter.pieces.size(), 2U);
    EXPECT_EQ(shorter.pieces[1], frame.mid(100, 1300));
    EXPECT_EQ(shorter.sum, 1300);

    const Sent negative = sendWith(frame, {-1299, 0});
    EXPECT_EQ(negative.pieces[1], frame.mid(-1299, 1300));
    const Sent beyond = sendWith(frame, {-5000, 0});
    EXPECT_EQ(beyond.pieces[1].size(), frame.mid(-5000, 1300).size());
}

TEST(SendInPieces, NothingFollowsAFailedLastPieceThoughItIsAWholeOne)
{
    for (const int count : {1, 2, 3}) {
        const QByteArray frame = numbered(540 * count);
        std::vector<qint64> results(static_cast<std::size_t>(count), 540);
        results.back() = -1;
        const Sent sent = sendWith(frame, results);
        EXPECT_EQ(sent.pieces.size(), results.size());
        EXPECT_EQ(sent.sum, 540 * (count - 1) - 1);
    }
    const QByteArray frame = numbered(1080);
    const Sent first = sendWith(frame, {-1});
    ASSERT_EQ(first.pieces.size(), 2U);
    EXPECT_EQ(first.pieces[1], frame.mid(-1, 1080));
    EXPECT_EQ(first.sum, 1078);
}

TEST(ClassifySent, InTheOrderOfTheTable)
{
    EXPECT_EQ(classifySent(0, 0), SendOutcome::Successful);
    EXPECT_EQ(classifySent(19, 19), SendOutcome::Successful);
    EXPECT_EQ(classifySent(-115, 19), SendOutcome::Failed);
    EXPECT_EQ(classifySent(-1, 19), SendOutcome::BroadcastFailed);
    EXPECT_EQ(classifySent(-2, 19), SendOutcome::Unknown);
    EXPECT_EQ(classifySent(18, 19), SendOutcome::Unknown);
    EXPECT_EQ(classifySent(0, 19), SendOutcome::Unknown);
    EXPECT_EQ(classifySent(20, 19), SendOutcome::Unknown);
}

TEST(UdpSocket, NullAddressOrNoSocketFailsEveryWrite)
{
    const QHostAddress here(QHostAddress::LocalHost);
    UdpSocket socket;
    EXPECT_EQ(socket.write("x", 1, here, 9), -1);
    ASSERT_TRUE(socket.open(0));
    EXPECT_EQ(socket.write("x", 1, here, 9), 1);
    EXPECT_EQ(socket.write("x", 1, QHostAddress(), 9), -1);
    socket.close();
    EXPECT_EQ(socket.write("x", 1, here, 9), -1);
}

TEST(UdpSocket, AClosedOneWritesToNoSocketThatTakesItsNumber)
{
    const UdpPeer peer;
    const QHostAddress here(QHostAddress::LocalHost);
    UdpSocket closed;
    ASSERT_TRUE(closed.open(0));
    closed.close();
    UdpSocket next;
    ASSERT_TRUE(next.open(0));
    EXPECT_FALSE(closed.isOpen());
    EXPECT_EQ(closed.readable(), -1);
    EXPECT_EQ(closed.write("x", 1, here, peer.port()), -1);
    EXPECT_FALSE(peer.hasDatagram());
    closed.close();
    EXPECT_EQ(next.write("y", 1, here, peer.port()), 1);
    EXPECT_TRUE(peer.hasDatagram());
}

namespace
{

// Does something between the datagrams of a frame.
class Between : public LinkObserver
{
public:
    explicit Between(std::function<void()> what) : act(std::move(what)) {}
    void onEvent(const LinkEvent& event) override
    {
        if (event.kind == LinkEvent::Kind::Sent) {
            act();
        }
    }

private:
    const std::function<void()> act;
};

} // namespace

TEST(UdpLink, AFrameGoesToTheDeviceThatItWasBegunFor)
{
    UdpPeer first;
    UdpPeer second;
    const auto tap = std::make_shared<LinkTap>();
    const auto link = std::make_shared<UdpLink>(tap);
    link->setDeviceIP(QStringLiteral("127.0.0.1"));
    link->rebuild(0, first.port());
    const auto change = std::make_shared<Between>([&] { link->rebuild(0, second.port()); });
    tap->add(change);
    const QByteArray frame = numbered(1300);
    EXPECT_EQ(link->sendUnicast(frame), SendOutcome::Successful);
    tap->remove(change);
    QByteArray whole;
    for (int piece = 0; piece < 3; ++piece) {
        whole += first.receive().bytes;
    }
    EXPECT_EQ(whole, frame);
    EXPECT_FALSE(second.hasDatagram());
    EXPECT_EQ(link->sendUnicast("next"), SendOutcome::Successful);
    EXPECT_EQ(second.receive().bytes, QByteArray("next"));
    link->close();
}

TEST(UdpLink, GivenUpInTheMiddleOfAFrameItOpensNoSocketAgain)
{
    UdpPeer peer;
    const auto tap = std::make_shared<LinkTap>();
    const auto link = std::make_shared<UdpLink>(tap);
    link->setDeviceIP(QStringLiteral("127.0.0.1"));
    link->rebuild(0, peer.port());
    const auto giveUp = std::make_shared<Between>([&] { link->close(); });
    tap->add(giveUp);
    const int descriptors = processstate::descriptors();
    EXPECT_EQ(link->sendUnicast(numbered(1300)), SendOutcome::Unknown);
    tap->remove(giveUp);
    EXPECT_EQ(processstate::descriptors(), descriptors - 1);
    EXPECT_EQ(peer.receive().bytes.size(), 540);
    EXPECT_FALSE(peer.hasDatagram());
    EXPECT_EQ(link->readable(), -1);
}

TEST(UdpLink, SendsBesideRebuildsAllArrive)
{
    constexpr int frames = 200; // as many as a receive buffer holds
    UdpPeer first;
    UdpPeer second;
    const auto link = std::make_shared<UdpLink>(std::make_shared<LinkTap>());
    link->setDeviceIP(QStringLiteral("127.0.0.1"));
    link->rebuild(0, first.port());
    std::atomic<bool> over{false};
    std::thread sender([&] {
        for (int i = 0; i < frames; ++i) {
            EXPECT_EQ(link->sendUnicast(QByteArray::number(i)), SendOutcome::Successful);
        }
        over = true;
    });
    while (!over) {
        link->rebuild(0, second.port());
        link->rebuild(0, first.port());
    }
    sender.join();
    std::set<QByteArray> arrived;
    for (UdpPeer* peer : {&first, &second}) {
        while (peer->hasDatagram()) {
            arrived.insert(peer->receive().bytes);
        }
    }
    EXPECT_EQ(arrived.size(), std::size_t{frames});
    link->close();
    EXPECT_EQ(link->sendUnicast("frame"), SendOutcome::BroadcastFailed);
}

TEST(UdpLink, TheDeviceChangesAndTheEndComesBesideSends)
{
    const UdpPeer peer;
    const auto link = std::make_shared<UdpLink>(std::make_shared<LinkTap>());
    link->rebuild(0, peer.port());
    std::atomic<bool> changes{true};
    std::atomic<bool> over{false};
    std::thread sender([&] {
        while (changes) {
            EXPECT_FALSE(link->sendTo(QStringLiteral("nobody"), "frame"));
        }
        while (!over) {
            (void)link->sendUnicast("frame");
        }
        EXPECT_EQ(link->sendUnicast("frame"), SendOutcome::BroadcastFailed);
    });
    for (int i = 0; i < 100'000; ++i) {
        link->setDeviceIP(QString::number(i));
    }
    link->setDeviceIP(QStringLiteral("127.0.0.1"));
    changes = false;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    link->close();
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    over = true;
    sender.join();
    EXPECT_EQ(link->readable(), -1);
}
