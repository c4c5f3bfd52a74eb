// SPDX-License-Identifier: MIT
#pragma once

#include "bridgeprocess.h"
#include "brokertest.h"
#include "mqttclient.h"
#include "tests/transports/udppeer.h"

#include <memory>

/// A device that the test plays, at an address of its own.
class BridgedPeer : public UdpPeer
{
public:
    explicit BridgedPeer(const QString& address = QStringLiteral("127.1.0.1"))
        : UdpPeer(address), host(address)
    {
    }

    QString link() const { return QStringLiteral("udp://%1:%2").arg(host).arg(port()); }

    /// The next command's bytes; nothing if none comes.
    QByteArray command() { return receive().bytes; }

private:
    const QString host;
};

/// A broker, a bridge and somebody at the other end.
class BridgeTest : public BrokerTest
{
protected:
    static QJsonObject with(QJsonObject object, const QJsonObject& more)
    {
        for (auto it = more.begin(); it != more.end(); ++it) {
            object.insert(it.key(), it.value());
        }
        return object;
    }

    /// Starts all three and waits until every link of \a links has said whether it is there.
    void begin(const QJsonArray& links, const QJsonObject& more = {})
    {
        ASSERT_TRUE(broker.start()) << qPrintable(broker.log());
        beginWith(with(bridgeConfiguration(broker, links), more));
    }

    void beginWith(const QJsonObject& whole)
    {
        configuration = whole;
        client = std::make_unique<MqttClient>(broker);
        ASSERT_TRUE(client->connects());
        ASSERT_TRUE(client->subscribe("site/#"));
        ASSERT_TRUE(client->subscribe("answers"));
        restart();
    }

    void restart()
    {
        bridge = std::make_unique<BridgeProcess>(configuration);
        EXPECT_TRUE(comes("bridge", "online"));
    }

    /// Waits until a link's status is this.
    bool comes(const QString& name, const QString& status)
    {
        for (;;) {
            const MqttMessage message = client->next("site/" + name + "/status");
            if (message.topic.isEmpty()) {
                return false;
            }
            lastStatus = message.json();
            if (lastStatus.value("status").toString() == status) {
                return true;
            }
        }
    }

    void command(const QByteArray& json, const QString& name = QStringLiteral("pump"))
    {
        EXPECT_TRUE(client->publish("site/" + name + "/command", json));
    }

    /// With an answer that comes to the topic "answers".
    void ask(const QByteArray& json, const QByteArray& correlation)
    {
        MqttClient::Options options;
        options.responseTopic = "answers";
        options.correlation = correlation;
        EXPECT_TRUE(client->publish("site/pump/command", json, options));
    }

    QJsonObject next(const QString& topic) { return client->next("site/" + topic).json(); }

    Broker broker;
    BridgedPeer peer;
    QJsonObject configuration;
    std::unique_ptr<MqttClient> client;
    std::unique_ptr<BridgeProcess> bridge;
    QJsonObject lastStatus;
};
