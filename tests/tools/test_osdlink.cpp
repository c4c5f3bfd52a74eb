// SPDX-License-Identifier: MIT
#include "osdlink.h"
#include "osdpeer.h"
#include "tests/osd/tcplistener.h"

#include <gtest/gtest.h>

#include <thread>

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

TEST(OsdLink, SendsOnceConnectedAndOnlyOnce)
{
    OsdPeer peer(address.toLatin1().constData());
    OsdLink link({{address, peer.port()}});
    link.send(command());
    while (link.isSending()) {
        link.takeReplies();
    }
    link.send(command());
    EXPECT_FALSE(link.isSending());
    EXPECT_EQ(peer.receive(2 * qint64{frame.size()}), frame + frame);
    peer.answer("OK1");
    std::vector<Reply> replies;
    EXPECT_TRUE(eventually([&] {
        replies = link.takeReplies();
        return !replies.empty();
    }));
    EXPECT_FALSE(peer.hasBytes());
}

TEST(OsdLink, TellsOfARefusalAtOnceAndCanBeReopened)
{
    OsdPeer peer(address.toLatin1().constData());
    peer.refuse();
    OsdLink link({{address, peer.port()}});
    link.send(command());
    EXPECT_TRUE(eventually([&] {
        link.takeReplies();
        return !link.problem().isEmpty();
    }));
    EXPECT_FALSE(link.isSending());
    EXPECT_FALSE(link.wasOpen());
    peer.serve();
    link.reopen(address);
    link.send(command());
    EXPECT_TRUE(eventually([&] {
        link.takeReplies();
        return !link.isSending();
    }));
    EXPECT_EQ(peer.receive(frame.size()), frame);
    EXPECT_EQ(link.problem(), QString());
}

// Nothing of this process runs while it is stopped, so that time is none that the endpoint had.
TEST(OsdLink, AnEndpointThatAnswersBehindAStopIsThere)
{
    const TcpListener listener{0}; // its queue takes one, and lets others hang
    const int filler = socket(AF_INET, SOCK_STREAM, 0);
    ASSERT_EQ(connect(filler, listener.name(), sizeof(sockaddr_in)), 0);
    OsdLink link({{address, static_cast<quint16>(listener.port())}});
    link.takeReplies();
    std::this_thread::sleep_for(std::chrono::milliseconds(2500)); // the limit is 2000
    const int accepted = listener.accept();
    link.takeReplies();
    EXPECT_EQ(link.problem(), QString());
    EXPECT_TRUE(eventually([&link] {
        link.takeReplies();
        return link.wasOpen();
    }));
    ::close(accepted);
    ::close(filler);
}
