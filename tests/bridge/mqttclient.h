// SPDX-License-Identifier: MIT
#pragma once

#include "broker.h"

#include <QByteArray>
#include <QJsonObject>
#include <QString>
#include <QStringList>

#include <chrono>
#include <memory>
#include <optional>
#include <vector>

/// A message as a client has got it. Without a topic it is none.
struct MqttMessage {
    QString topic;
    QByteArray payload;
    bool retained = false; ///< it was there before the subscription
    QString responseTopic;
    QByteArray correlation;
    std::chrono::steady_clock::time_point arrival;

    QJsonObject json() const;
};

/// A client of a broker in MQTT 5, on libmosquitto's thread: it comes back to a broker that has
/// been restarted, with its subscriptions. Its functions are for one thread, and run the Qt event
/// loop where they wait.
class MqttClient
{
public:
    struct Access {
        QString id; ///< empty: the broker gives it one
        QString user;
        QString password;
        QString authority; ///< TLS: the path of the authority's certificate
        Authority::Papers papers;
        quint16 port = 0; ///< 0: the broker's own
    };

    struct Options {
        QString responseTopic;
        QByteArray correlation;
        std::optional<quint32> expiry; ///< s
        bool retained = false;
        int qos = 1;
    };

    explicit MqttClient(const Broker& broker) : MqttClient(broker, Access()) {}
    MqttClient(const Broker& broker, const Access& access);
    ~MqttClient();
    MqttClient(const MqttClient&) = delete;
    MqttClient& operator=(const MqttClient&) = delete;

    bool connects() const;    ///< waits until the broker has let it in
    bool isConnected() const; ///< now
    int refusal() const;      ///< the reason code of the broker's last refusal; 0 if there was none
    bool disconnects() const; ///< waits until the connection is gone
    bool subscribe(const QString& filter); ///< waits until it is granted

    /// Hands a message to the library, which sends it when it can.
    bool publish(const QString& topic, const QByteArray& payload)
    {
        return publish(topic, payload, Options());
    }
    bool publish(const QString& topic, const QByteArray& payload, const Options& options);

    /// Waits until the broker has acknowledged everything that was published at QoS 1.
    bool isAcknowledged() const;
    int acknowledged() const; ///< messages so far

    /// Waits for the oldest message that nobody has taken yet, of this topic, and takes it; one
    /// without a topic if none comes.
    MqttMessage next(const QString& topic);

    /// Takes everything that has come so far.
    std::vector<MqttMessage> take();

private:
    struct Connection; // what libmosquitto's thread touches
    std::unique_ptr<Connection> connection;
    std::vector<MqttMessage> held; // arrived, and asked for by nobody yet
    int handedOver = 0;            // messages at QoS 1
};
