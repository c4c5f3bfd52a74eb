// SPDX-License-Identifier: MIT
#include "osdlink.h"
#include "osdpeer.h"

#include <gtest/gtest.h>

namespace
{

const QString address = QStringLiteral("127.0.0.1");
const QByteArray frame(8, '\x21');

Command command()
{
    Command all;
    for (char* const byte : {&all.osd.ch2, &all.osd.ch3, &all.osd.ch4, &all.osd.ch5, &all.osd.ch7,
                             &all.osd.ch8, &all.osd.ch9, &all.osd.ch10}) {
        *byte = '\x21';
    }
    return all;
}

} // namespace

// The system knows of a connection before the endpoint's thread does, which then drops the record.
TEST(OsdLink, SendsAgainWhatAThreadDroppedThatHadNotNoticedItsConnection)
{
    OsdPeer peer(address.toLatin1().constData());
    int looks = 0;
    bool tellsTheTruth = false;
    const auto early = [&]() -> std::vector<sockets::Connection> {
        ++looks;
        if (tellsTheTruth) {
            return sockets::established();
        }
        return {{QHostAddress(address), peer.port(), false}};
    };
    peer.refuse();
    OsdLink link({{address, peer.port()}}, early);
    link.send(command());
    ASSERT_TRUE(eventually([&] {
        link.takeReplies();
        return looks > 20;
    }));
    EXPECT_TRUE(link.isSending());
    peer.serve();
    link.reopen(address);
    tellsTheTruth = true;
    EXPECT_TRUE(eventually([&] {
        link.takeReplies();
        return !link.isSending();
    }));
    EXPECT_EQ(peer.receive(frame.size()), frame);
    EXPECT_FALSE(peer.hasBytes());
}

// What is seen of the thread must be older than what is seen of its connection.
TEST(OsdLink, SendsNothingTwice)
{
    OsdPeer peer(address.toLatin1().constData());
    const auto late = [] {
        auto seen = sockets::established();
        std::this_thread::sleep_for(std::chrono::milliseconds(30)); // it is sent meanwhile
        return seen;
    };
    OsdLink link({{address, peer.port()}}, late);
    link.send(command());
    while (link.isSending()) { // at once: before the thread has come to the record
        link.takeReplies();
    }
    EXPECT_EQ(peer.receive(frame.size()), frame);
    peer.answer("OK1");
    std::vector<Reply> replies;
    EXPECT_TRUE(eventually([&] {
        replies = link.takeReplies();
        return !replies.empty();
    }));
    EXPECT_FALSE(peer.hasBytes());
}
