// SPDX-License-Identifier: MIT
#include "bridgesite.h"

namespace
{

struct Refused {
    const char* command;
    int code;
    const char* error; // how it begins

    friend void PrintTo(const Refused& refused, std::ostream* stream)
    {
        *stream << refused.command;
    }
};

class Refusal : public BridgeTest, public ::testing::WithParamInterface<Refused>
{
};

// A command behind it shows that nothing went to the device before.
TEST_P(Refusal, IsToldAndTouchesNoDevice)
{
    begin({QJsonObject{{"name", "pump"},
                       {"address", peer.link()},
                       {"allow", QJsonArray{"0x10", "32/3"}},
                       {"block_limit", 4}}});
    command(GetParam().command);
    const QJsonObject error = next("pump/error");
    EXPECT_FALSE(error.value("ok").toBool(true));
    EXPECT_EQ(error.value("code").toInt(), GetParam().code);
    const QString said = error.value("error").toString();
    EXPECT_TRUE(said.startsWith(QLatin1String(GetParam().error))) << qPrintable(said);
    command(R"({"cmd": "0x10", "dat1": 7, "block": "01020304"})");
    EXPECT_EQ(peer.command(), "<T00001007000400"
                              "1b>"
                              "\1\2\3\4");
}

INSTANTIATE_TEST_SUITE_P(
    Bridge, Refusal,
    ::testing::Values(
        Refused{"", 2, "no JSON"}, Refused{"{\"cmd\":", 2, "no JSON"},
        Refused{"[1]", 2, "no JSON object"}, Refused{"{}", 2, "\"cmd\" is missing"},
        Refused{R"({"cmd": "16"})", 2, "cmd: invalid value \"16\" (expected 0 to 255"},
        Refused{R"({"cmd": 1.5})", 2, "cmd: invalid value \"1.5\""},
        Refused{R"({"cmd": 256})", 2, "cmd: invalid value \"256\""},
        Refused{R"({"cmd": -1})", 2, "cmd: invalid value \"-1\""},
        Refused{R"({"cmd": "0x100"})", 2, "cmd: invalid value \"0x100\""},
        Refused{R"({"cmd": "0x"})", 2, "cmd: invalid value \"0x\""},
        Refused{R"({"cmd": true})", 2, "cmd: invalid value \"true\""},
        Refused{R"({"cmd": null})", 2, "cmd: invalid value \"null\""},
        Refused{R"({"cmd": 16, "ch2": 1})", 2, "unknown \"ch2\" (expected head, addr, cmd"},
        Refused{R"({"cmd": 16, "CMD": 17})", 2, "unknown \"CMD\""},
        Refused{R"({"cmd": 16, "chksum": 1})", 2, "unknown \"chksum\""},
        Refused{R"({"cmd": 16, "raw": "00"})", 2, "unknown \"raw\""},
        Refused{R"({"cmd": 16, "block": "0"})", 2, "block: invalid value \"0\""},
        Refused{R"({"cmd": 16, "block": "@/etc/passwd"})", 2, "block: invalid value"},
        Refused{R"({"cmd": 16, "block": 7})", 2, "block: invalid value \"7\""},
        Refused{R"({"cmd": 16, "block": "0102030405"})", 2,
                "block: 5 bytes are too many (expected 0 to 4)"},
        Refused{R"({"cmd": 16, "tries": 0})", 2, "tries: invalid value \"0\" (expected 1 to 10"},
        Refused{R"({"cmd": 16, "timeout_ms": 60001})", 2, "timeout_ms: invalid value"},
        Refused{R"({"cmd": 17})", 2, "cmd 0x11 with dat1 0x00 is not allowed here"},
        Refused{R"({"cmd": 32, "dat1": 4})", 2, "cmd 0x20 with dat1 0x04 is not allowed here"}));

using Bridge = BridgeTest;

TEST_F(Bridge, RefusesWhatIsTooLarge)
{
    begin({openLink("pump", peer.link())});
    command("{\"cmd\": 1, \"dat1\": 2" + QByteArray(5000, ' ') + "}");
    EXPECT_EQ(next("pump/error").value("error").toString(),
              "a command of 5021 bytes is too large (expected at most 4096)");
    EXPECT_FALSE(peer.hasDatagram());
}

TEST_F(Bridge, RefusesEverythingUntilItIsAllowed)
{
    begin({QJsonObject{{"name", "pump"}, {"address", peer.link()}}});
    command(R"({"cmd": 1})");
    EXPECT_EQ(next("pump/error").value("error").toString(),
              "cmd 0x01 with dat1 0x00 is not allowed here");
    EXPECT_FALSE(peer.hasDatagram());
}

TEST_F(Bridge, RefusesRetainedCommandsOfNowAndBefore)
{
    ASSERT_TRUE(broker.start());
    MqttClient::Options retained;
    retained.retained = true;
    MqttClient before(broker);
    ASSERT_TRUE(before.connects());
    ASSERT_TRUE(before.publish("site/pump/command", R"({"cmd": 1})", retained));
    ASSERT_TRUE(before.isAcknowledged());
    beginWith(bridgeConfiguration(broker, {openLink("pump", peer.link())}));
    const QString expected = "a retained command: it would be sent again and again";
    EXPECT_EQ(next("pump/error").value("error").toString(), expected);
    ASSERT_TRUE(client->publish("site/pump/command", R"({"cmd": 2})", retained));
    EXPECT_EQ(next("pump/error").value("error").toString(), expected);
    EXPECT_FALSE(peer.hasDatagram());
}

TEST_F(Bridge, LetsSoManyCommandsInAtOnce)
{
    begin({with(openLink("pump", peer.link()), {{"rate", 2}, {"queue", 10000}})});
    QJsonObject error;
    int sent = 0; // a busy machine may take long for each
    EXPECT_TRUE(eventually([&] {
        command(R"({"cmd": 1, "timeout_ms": 60000})");
        ++sent;
        for (const MqttMessage& message : client->take()) {
            error = message.topic == "site/pump/error" ? message.json() : error;
        }
        return !error.isEmpty();
    }));
    EXPECT_EQ(error.value("error").toString(), "more than 2 commands a second");
    EXPECT_GE(sent, 3);
}

TEST_F(Bridge, LetsSoManyCommandsWait)
{
    begin({with(openLink("pump", peer.link()), {{"queue", 2}})});
    for (int i = 1; i <= 4; ++i) {
        command(
            QByteArray(R"({"cmd": %, "timeout_ms": 60000})").replace('%', QByteArray::number(i)));
    }
    EXPECT_EQ(next("pump/error").value("error").toString(), "not sent: 2 commands wait already");
    for (int i = 1; i <= 3; ++i) {
        EXPECT_EQ(peer.command().mid(6, 2), "0" + QByteArray::number(i));
        peer.send(replyText(i, 0));
    }
}

TEST_F(Bridge, SendsNoCommandThatIsOlderThanItsExpiry)
{
    begin({openLink("pump", peer.link())});
    command(R"({"cmd": 1, "timeout_ms": 2500})");
    MqttClient::Options options;
    options.expiry = 1;
    ASSERT_TRUE(client->publish("site/pump/command", R"({"cmd": 2})", options));
    EXPECT_EQ(next("pump/error").value("error").toString(), "not sent: older than its expiry");
    EXPECT_EQ(peer.command().mid(6, 2), "01");
    EXPECT_FALSE(peer.hasDatagram());
}

TEST_F(Bridge, SendsNoCommandThatWasLeftInTheBroker)
{
    begin({openLink("pump", peer.link())});
    EXPECT_EQ(bridge->terminate(), 0);
    command(R"({"cmd": 1})");
    ASSERT_TRUE(client->isAcknowledged());
    restart();
    EXPECT_EQ(next("pump/error").value("error").toString(),
              "not sent: it was left in the broker while the bridge was away");
    command(R"({"cmd": 2})");
    EXPECT_EQ(peer.command().mid(6, 2), "02") << "nothing before";
}

TEST_F(Bridge, SendsStaleCommandsIfItIsToldTo)
{
    begin({openLink("pump", peer.link())}, {{"send_stale", true}});
    EXPECT_EQ(bridge->terminate(), 0);
    command(R"({"cmd": 1})");
    ASSERT_TRUE(client->isAcknowledged());
    restart();
    EXPECT_EQ(peer.command().mid(6, 2), "01");
}

TEST_F(Bridge, AnswersToNoTopicOfItsOwn)
{
    BridgedPeer other("127.1.0.2");
    begin({openLink("pump", peer.link()), openLink("lamp", other.link())});
    MqttClient::Options options;
    for (const char* topic : {"site/lamp/command", "site/lamp/status", "$SYS/x"}) {
        options.responseTopic = topic;
        ASSERT_TRUE(client->publish("site/pump/command", R"({"cmd": 1})", options));
        EXPECT_TRUE(next("pump/error").value("error").toString().startsWith("response topic: "));
    }
    EXPECT_FALSE(peer.hasDatagram());
}

} // namespace
