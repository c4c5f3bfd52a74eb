// SPDX-License-Identifier: MIT
#include "bridgesite.h"

namespace
{

using Bridge = BridgeTest;

TEST_F(Bridge, AnswersACommandWithWhatSendPrints)
{
    begin({openLink("pump", peer.link())});
    ASSERT_TRUE(comes("pump", "online"));
    command(R"({"cmd": "0x10", "dat1": 2, "dat2": 3, "addr": 1, "head": "0x5a",
               "timeout_ms": 60000})");
    EXPECT_EQ(peer.command(), "<T5a01100203000070>");
    peer.send(replyText(0x10, 0x02));
    const QJsonObject answer = next("pump/reply");
    EXPECT_TRUE(answer.value("ok").toBool());
    EXPECT_EQ(answer.value("code").toInt(-1), 0);
    EXPECT_EQ(answer.value("tries").toInt(), 1);
    EXPECT_EQ(answer.value("name").toString(), "pump");
    EXPECT_EQ(answer.value("link").toString(), peer.link());
    EXPECT_EQ(answer.value("sent").toObject().value("cmd").toInt(), 0x10);
    ASSERT_EQ(answer.value("replies").toArray().size(), 1);
    const QJsonObject reply = answer.value("replies").toArray().at(0).toObject();
    EXPECT_EQ(reply.value("cmd").toInt(), 0x10);
    EXPECT_EQ(reply.value("from").toString(), "127.1.0.1");
}

TEST_F(Bridge, AnswersWhereItIsAskedToAndNowhereElse)
{
    begin({openLink("pump", peer.link())});
    const QByteArray correlation("\0a\xff", 3);
    ask(R"({"cmd": 1, "timeout_ms": 60000})", correlation);
    EXPECT_EQ(peer.command().size(), 19);
    peer.send(replyText(1, 0));
    const MqttMessage answer = client->next("answers");
    EXPECT_EQ(answer.correlation, correlation);
    EXPECT_TRUE(answer.json().value("ok").toBool());
    ask(R"({"cmd": 300})", "wrong");
    const MqttMessage refusal = client->next("answers");
    EXPECT_EQ(refusal.correlation, "wrong");
    EXPECT_EQ(refusal.json().value("code").toInt(), 2);
    command(R"({"cmd": 2, "timeout_ms": 60000})");
    EXPECT_EQ(peer.command().size(), 19);
    peer.send(replyText(2, 0));
    EXPECT_EQ(next("pump/reply").value("sent").toObject().value("cmd").toInt(), 2)
        << "the first there";
    for (const MqttMessage& message : client->take()) {
        EXPECT_FALSE(message.topic.endsWith("/error")) << message.payload.toStdString();
    }
}

TEST_F(Bridge, TriesAsOftenAsTheCommandAsks)
{
    begin({openLink("pump", peer.link())});
    command(R"({"cmd": 1, "tries": 3, "timeout_ms": 100})");
    const QJsonObject answer = next("pump/reply");
    EXPECT_FALSE(answer.value("ok").toBool(true));
    EXPECT_EQ(answer.value("code").toInt(), 1);
    EXPECT_EQ(answer.value("tries").toInt(), 3);
    EXPECT_EQ(answer.value("error").toString(), peer.link() + ": no reply within 100 ms, 3 tries");
    EXPECT_GE(answer.value("elapsed_ms").toDouble(), 300);
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(peer.hasDatagram());
        peer.command();
    }
    EXPECT_FALSE(peer.hasDatagram());
}

TEST_F(Bridge, TellsWhatNoCommandAwaited)
{
    begin({openLink("pump", peer.link())});
    ASSERT_TRUE(comes("pump", "online"));
    peer.send(replyText(0x20, 0x01));
    const QJsonObject reply = next("pump/reply");
    EXPECT_TRUE(reply.value("unawaited").toBool());
    EXPECT_EQ(reply.value("replies").toArray().at(0).toObject().value("cmd").toInt(), 0x20);
}

// The one that waits for its reply holds up its own link only.
TEST_F(Bridge, SendsOneCommandAtATimeOnEachLink)
{
    BridgedPeer other("127.1.0.2");
    begin({openLink("pump", peer.link()), openLink("lamp", other.link())});
    command(R"({"cmd": 1, "timeout_ms": 60000})");
    EXPECT_EQ(peer.command().mid(6, 2), "01");
    command(R"({"cmd": 2, "timeout_ms": 60000})");
    command(R"({"cmd": 3, "timeout_ms": 60000})", "lamp");
    EXPECT_EQ(other.command().mid(6, 2), "03");
    other.send(replyText(3, 0));
    EXPECT_EQ(next("lamp/reply").value("sent").toObject().value("cmd").toInt(), 3);
    EXPECT_FALSE(peer.hasDatagram()) << "the first is not answered yet";
    peer.send(replyText(1, 0));
    EXPECT_EQ(peer.command().mid(6, 2), "02");
    peer.send(replyText(2, 0));
    EXPECT_EQ(next("pump/reply").value("sent").toObject().value("cmd").toInt(), 1);
    EXPECT_EQ(next("pump/reply").value("sent").toObject().value("cmd").toInt(), 2);
}

// A block comes in a datagram that says nothing of itself.
TEST_F(Bridge, AsksOneUdpDeviceAtATimeForABlock)
{
    constexpr int length = 145;
    BridgedPeer other("127.1.0.2");
    begin({openLink("pump", peer.link()), openLink("lamp", other.link())});
    command(R"({"cmd": "0x8b", "dat1": 5, "timeout_ms": 60000})");
    EXPECT_EQ(peer.command().mid(6, 2), "8b");
    command(R"({"cmd": "0x8b", "dat1": 5, "timeout_ms": 60000})", "lamp");
    command(R"({"cmd": "0x300"})", "lamp");
    EXPECT_EQ(next("lamp/error").value("code").toInt(), 2) << "so the one before was looked at";
    EXPECT_FALSE(other.hasDatagram());
    peer.send(replyText(0x8b, 5));
    peer.send(replybytes::block(length, 1));
    EXPECT_EQ(other.command().mid(6, 2), "8b");
    other.send(replyText(0x8b, 5));
    other.send(replybytes::block(length, 2));
    const auto block = [this](const QString& name) {
        return next(name + "/reply").value("replies").toArray().at(0).toObject().value("block");
    };
    EXPECT_EQ(block("pump").toString().toLatin1(), replybytes::block(length, 1).toHex());
    EXPECT_EQ(block("lamp").toString().toLatin1(), replybytes::block(length, 2).toHex());
}

TEST_F(Bridge, SendsACommandOnceThatComesTwice)
{
    begin({openLink("pump", peer.link())});
    ask(R"({"cmd": 1, "timeout_ms": 60000})", "same");
    EXPECT_EQ(peer.command().mid(6, 2), "01");
    ask(R"({"cmd": 1, "timeout_ms": 60000})", "same"); // while it is under way
    peer.send(replyText(1, 0));
    EXPECT_TRUE(client->next("answers").json().value("ok").toBool());
    ask(R"({"cmd": 1, "timeout_ms": 60000})", "same"); // when it is answered
    ask(R"({"cmd": 2, "timeout_ms": 60000})", "same"); // another one
    EXPECT_EQ(peer.command().mid(6, 2), "02");
    peer.send(replyText(2, 0));
    EXPECT_EQ(client->next("answers").json().value("sent").toObject().value("cmd").toInt(), 2);
}

TEST_F(Bridge, CountsWhatPasses)
{
    begin({openLink("pump", peer.link())}, {{"counters_s", 1}});
    command(R"({"cmd": 1, "timeout_ms": 60000})");
    EXPECT_EQ(peer.command().size(), 19);
    peer.send(replyText(1, 0));
    EXPECT_TRUE(next("pump/reply").value("ok").toBool()) << "counted before what is refused";
    command("{}");
    EXPECT_FALSE(next("pump/error").isEmpty());
    QJsonObject counters;
    do {
        counters = next("pump/counters");
    } while (!counters.isEmpty() && counters.value("refused").toInt() == 0);
    EXPECT_EQ(counters.value("commands").toInt(), 2);
    EXPECT_EQ(counters.value("answered").toInt(), 1);
    EXPECT_EQ(counters.value("refused").toInt(), 1);
    const QJsonObject events = counters.value("events").toObject();
    EXPECT_EQ(events.value("sent").toInt(), 1);
    EXPECT_EQ(events.value("received").toInt(), 1);
    EXPECT_EQ(events.value("reply").toInt(), 1);
    EXPECT_EQ(counters.value("bytes").toObject().value("sent").toInt(), 19);
    EXPECT_EQ(next("bridge/counters").value("links").toInt(), 1);
}

} // namespace
