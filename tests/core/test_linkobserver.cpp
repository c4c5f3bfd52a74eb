// SPDX-License-Identifier: MIT
#include "core_udp.h"
#include "eventlog.h"
#include "hostqueue.h"
#include "linkcounters.h"
#include "tests/transports/udppeer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace
{

using Kind = LinkEvent::Kind;
using Check = LinkEvent::Check;

const QString here = QStringLiteral("127.0.0.1");

class ObservedUdp : public ::testing::Test
{
protected:
    ObservedUdp() : link(std::make_unique<core_UDP>())
    {
        hostqueue::clear();
        link->setDeviceIP(here);
        link->setPort(device.port());
        link->addObserver(log);
    }

    void send(const QByteArray& block = {})
    {
        model_Protocoldata record;
        record.arryDatablock = block;
        link->sendDatatoDevice(&record);
    }

    UdpPeer device;
    std::unique_ptr<core_UDP> link;
    std::shared_ptr<EventLog> log = std::make_shared<EventLog>();
};

// Needs the link's locks and the host's.
class UsesEveryLock : public LinkObserver
{
public:
    explicit UsesEveryLock(core_UDP& of) : link(of) {}
    void onEvent(const LinkEvent& event) override
    {
        link.setDeviceIP(here);
        (void)hostqueue::size();
        (void)hostqueue::flag();
        counters.onEvent(event);
    }

    core_UDP& link;
    LinkCounters counters;
};

} // namespace

TEST_F(ObservedUdp, TellsOfEachDatagramWithItsAddress)
{
    send(QByteArray(700, 'b'));
    ASSERT_TRUE(log->has(2, Kind::Sent)) << "as many as the frame takes datagrams";
    for (const auto& sent : log->all(Kind::Sent)) {
        EXPECT_EQ(sent.event.bytes, device.receive().bytes);
        EXPECT_EQ(sent.event.peer, here);
        EXPECT_EQ(sent.event.port, device.port());
    }
    const auto before = std::chrono::system_clock::now();
    device.send(replyText(0x10, 0x20));
    ASSERT_TRUE(log->has(1, Kind::Reply));
    const LinkEvent received = log->all(Kind::Received).at(0).event;
    EXPECT_EQ(received.bytes, replyText(0x10, 0x20));
    EXPECT_EQ(received.peer, here);
    EXPECT_EQ(received.port, device.port());
    EXPECT_GE(received.time, before);
    EXPECT_LE(received.time, std::chrono::system_clock::now());
    EXPECT_EQ(log->all(Kind::Reply).at(0).event.peer, here);
    EXPECT_EQ(log->all(Kind::Reply).at(0).reply.CMD, 0x10);
}

TEST_F(ObservedUdp, TellsOfWhatTheSystemRefuses)
{
    link->setDeviceIP(QStringLiteral("no address"));
    send();
    ASSERT_TRUE(log->has(1, Kind::SendFailed));
    EXPECT_EQ(log->bytes(Kind::SendFailed).left(2), "<T");
    EXPECT_EQ(log->all(Kind::Sent).size(), 0U);
}

TEST_F(ObservedUdp, NamesTheCheckThatRefusesADatagram)
{
    const struct {
        QByteArrayList datagrams;
        Check check;
        int at; // which of them is refused
    } cases[] = {
        {{"short"}, Check::Length, 0},
        {{QByteArray()}, Check::Length, 0},
        {{QByteArray(19, 'x')}, Check::Marks, 0},
        {{"<T5a0110020000006e>"}, Check::Marks, 0},
        {{"<F5a0110020000006e>"}, Check::Checksum, 0},
        {{replyText(0x8e, 0x27, 0), "four"}, Check::NoBlock, 1},
        {{replyText(0x8e, 0x27, 5), "four"}, Check::BlockLength, 1},
        {{replyText(0x8e, 0x27, 20), "<F5a0110020000006e>"}, Check::Checksum, 1},
        {{replyText(0x8e, 0x27, 5), replyText(0x8b, 0x05), "the block of the second"},
         Check::BlockMissing,
         0},
    };
    for (const auto& wrong : cases) {
        SCOPED_TRACE(wrong.datagrams.join("|").toStdString());
        const auto refused = std::make_shared<EventLog>();
        link->addObserver(refused);
        for (const QByteArray& datagram : wrong.datagrams) {
            device.send(datagram);
        }
        ASSERT_TRUE(refused->has(1, Kind::Refused, wrong.check));
        const LinkEvent event = refused->all(Kind::Refused, wrong.check).at(0).event;
        EXPECT_EQ(event.bytes, wrong.datagrams.at(wrong.at));
        EXPECT_EQ(event.peer, here);
        EXPECT_EQ(event.port, device.port());
        device.send(replyText(0x10, 0x20)); // nothing else is refused
        EXPECT_TRUE(refused->has(wrong.check == Check::BlockMissing ? 2 : 1, Kind::Reply));
        EXPECT_TRUE(refused->has(1, Kind::Refused, wrong.check));
        link->removeObserver(refused);
    }
}

TEST_F(ObservedUdp, TellsOfItsState)
{
    link->reInitUdpZarn();
    EXPECT_TRUE(log->has(1, Kind::Reinitialised));
    EXPECT_EQ(log->all(Kind::Closed).size(), 0U);
    link.reset();
    EXPECT_TRUE(log->has(1, Kind::Closed));
}

TEST_F(ObservedUdp, HoldsNoLockMeanwhile)
{
    const auto observer = std::make_shared<UsesEveryLock>(*link);
    link->addObserver(observer);
    send();
    device.send(replyText(0x10, 0x20));    // handed on by the reader
    device.send(replyText(0x79, 0x0c));    // an immediate one
    device.send(replyText(0x8e, 0x27, 5)); // waits for its block, which does not come
    device.send(replyText(0x8b, 0x05));    // so does this one
    device.send("x");                      // its block
    device.send("noise");
    link->combineSTDCMDandBloackCMD("x", replyText(0x8e, 0x27, 5));
    EXPECT_TRUE(eventually([&] { return observer->counters.events(Kind::Reply) == 3; }));
    EXPECT_TRUE(eventually([&] { return observer->counters.refusals(Check::Length) == 1; }));
    EXPECT_EQ(observer->counters.refusals(Check::BlockMissing), 1U);
    EXPECT_EQ(observer->counters.refusals(Check::BlockLength), 1U);
    link->reInitUdpZarn();
    EXPECT_EQ(observer->counters.events(Kind::Reinitialised), 1U);
    link->removeObserver(observer); // the link is used in its own end otherwise
}

TEST_F(ObservedUdp, CountsWhileObserversComeAndGo)
{
    constexpr int frames = 300;
    const auto counters = std::make_shared<LinkCounters>();
    link->addObserver(counters);
    std::atomic<bool> over{false};
    std::thread others([&] {
        while (!over) {
            const auto another = std::make_shared<LinkCounters>();
            link->addObserver(another);
            link->removeObserver(another);
            (void)counters->bytes(Kind::Sent); // readable at any time
        }
    });
    std::thread sender([&] {
        for (int i = 0; i < frames; ++i) {
            send();
        }
    });
    for (int i = 0; i < frames; ++i) {
        device.send(replyText(0x10, 0x20));
    }
    sender.join();
    EXPECT_TRUE(eventually([&] { return counters->events(Kind::Reply) == frames; }));
    over = true;
    others.join();
    EXPECT_EQ(counters->events(Kind::Sent), static_cast<quint64>(frames));
    EXPECT_EQ(counters->bytes(Kind::Sent), static_cast<quint64>(frames) * 19);
    EXPECT_EQ(counters->bytes(Kind::Received), static_cast<quint64>(frames) * 19);
    EXPECT_EQ(counters->events(Kind::Refused), 0U);
}

TEST_F(ObservedUdp, SharesTheObserverOnlyWhileItIsWatched)
{
    const std::weak_ptr<EventLog> watched = log;
    link->addObserver(nullptr);
    send();
    link->removeObserver(log);
    log.reset();
    EXPECT_TRUE(watched.expired());
    log = std::make_shared<EventLog>();
    link->addObserver(log);
    const std::weak_ptr<EventLog> again = log;
    log.reset();
    EXPECT_FALSE(again.expired());
    link.reset();
    EXPECT_TRUE(again.expired());
}
