// SPDX-License-Identifier: MIT
// The broker and the client that the bridge's tests use: that they let in, refuse, keep and lose
// what those tests rely on.
#include "brokertest.h"
#include "eventually.h"
#include "mqttclient.h"
#include "mqtttap.h"

namespace
{

bool keepsAMessage(MqttClient& client, const QString& topic)
{
    MqttClient::Options options;
    options.retained = true;
    return client.connects() && client.publish(topic, "kept", options) && client.isAcknowledged();
}

TEST_F(BrokerTest, CarriesAMessageWithItsProperties)
{
    Broker broker;
    ASSERT_TRUE(broker.start()) << qPrintable(broker.log());
    MqttClient client(broker);
    ASSERT_TRUE(client.connects());
    ASSERT_TRUE(client.subscribe("a/#"));
    MqttClient::Options options;
    options.responseTopic = "b/c";
    options.correlation = QByteArray("\0\1", 2);
    ASSERT_TRUE(client.publish("a/b", "other"));
    ASSERT_TRUE(client.publish("a/c", "{\"d\":1}", options));
    const MqttMessage message = client.next("a/c");
    EXPECT_EQ(message.json().value("d").toInt(), 1);
    EXPECT_EQ(message.responseTopic, "b/c");
    EXPECT_EQ(message.correlation, options.correlation);
    EXPECT_FALSE(message.retained);
    EXPECT_EQ(client.next("a/b").payload, "other");
    EXPECT_TRUE(client.isAcknowledged());
    EXPECT_TRUE(client.take().empty());
}

TEST_F(BrokerTest, LosesWhatItHadWhenItIsKilled)
{
    Broker broker;
    ASSERT_TRUE(broker.start());
    MqttClient client(broker);
    ASSERT_TRUE(keepsAMessage(client, "kept"));
    broker.kill();
    EXPECT_TRUE(client.disconnects());
    ASSERT_TRUE(broker.start()) << qPrintable(broker.log());
    EXPECT_TRUE(client.connects());
    ASSERT_TRUE(client.subscribe("#"));
    ASSERT_TRUE(client.publish("new", "2"));
    EXPECT_EQ(client.next("new").payload, "2");
    EXPECT_TRUE(client.take().empty());
}

TEST_F(BrokerTest, KeepsWhatItHadWhenItIsToldTo)
{
    Broker::Setup setup;
    setup.keeps = true;
    Broker broker(setup);
    ASSERT_TRUE(broker.start());
    MqttClient client(broker);
    ASSERT_TRUE(keepsAMessage(client, "kept"));
    ASSERT_TRUE(keepsAMessage(client, "another")); // saved with the next change
    broker.kill();
    ASSERT_TRUE(broker.start()) << qPrintable(broker.log());
    MqttClient other(broker);
    ASSERT_TRUE(other.connects());
    ASSERT_TRUE(other.subscribe("kept"));
    const MqttMessage message = other.next("kept");
    EXPECT_EQ(message.payload, "kept");
    EXPECT_TRUE(message.retained);
}

TEST_F(BrokerTest, LetsInWhoHasThePassword)
{
    Broker::Setup setup;
    setup.passwords = {{"anna", "secret"}};
    setup.access = "user anna\ntopic read own/#\n";
    Broker broker(setup);
    ASSERT_TRUE(broker.start()) << qPrintable(broker.log());
    MqttClient::Access access;
    access.user = "anna";
    access.password = "guess";
    MqttClient stranger(broker, access);
    EXPECT_FALSE(stranger.connects());
    EXPECT_EQ(stranger.refusal(), 0x87); // not authorised
    access.password = "secret";
    MqttClient anna(broker, access);
    EXPECT_TRUE(anna.connects());
    EXPECT_TRUE(anna.subscribe("own/#"));
}

TEST_F(BrokerTest, LetsInWhoHasACertificate)
{
    const Authority authority;
    Broker::Setup setup;
    setup.authority = &authority;
    Broker broker(setup);
    ASSERT_TRUE(broker.start()) << qPrintable(broker.log());
    MqttClient::Access access;
    access.authority = authority.certificate();
    access.papers = authority.issue("anna");
    MqttClient anna(broker, access);
    EXPECT_TRUE(anna.connects()) << qPrintable(broker.log());

    const Authority other;
    access.papers = other.issue("anna");
    const MqttClient stranger(broker, access);
    EXPECT_TRUE(eventually([&broker] {
        return broker.log().contains("certificate verify failed");
    })) << qPrintable(broker.log());
    EXPECT_FALSE(stranger.isConnected());
}

TEST_F(BrokerTest, IsWatchedThroughATap)
{
    Broker broker;
    ASSERT_TRUE(broker.start());
    const MqttTap tap(broker);
    MqttClient::Access access;
    access.port = tap.port();
    MqttClient client(broker, access);
    ASSERT_TRUE(client.connects());
    ASSERT_TRUE(client.subscribe("#"));
    MqttClient::Options options;
    options.responseTopic = "an/answer";
    options.expiry = 60;
    options.correlation = "one";
    ASSERT_TRUE(client.publish("a", QByteArray(300, 'x'), options));
    EXPECT_EQ(client.next("a").correlation, "one");
    options.correlation = "two";
    ASSERT_TRUE(client.publish("b", "last", options));
    EXPECT_EQ(client.next("b").payload, "last");
    EXPECT_TRUE(client.isAcknowledged());
    EXPECT_TRUE(eventually([&tap] { return tap.commands().value("two").acknowledged == 1; }));
    EXPECT_EQ(tap.connections(), 1);
    for (const MqttTap::Passages& passages : {tap.answers(), tap.commands()}) {
        EXPECT_EQ(passages.keys(), QList<QByteArray>({"one", "two"}));
        EXPECT_EQ(passages.value("one").sent, 1);
        EXPECT_EQ(passages.value("one").payload.size(), 300);
        EXPECT_EQ(passages.value("two").sent, 1);
        EXPECT_EQ(passages.value("two").repeated, 0);
        EXPECT_EQ(passages.value("two").payload, "last");
    }
    broker.kill();
    EXPECT_TRUE(client.disconnects());
    ASSERT_TRUE(broker.start());
    EXPECT_TRUE(client.connects());
    EXPECT_GE(tap.connections(), 2);
}

} // namespace
