// SPDX-License-Identifier: MIT
#pragma once

#include "bridgeconfig.h"
#include "retrypause.h"

#include <QObject>
#include <QTimer>

#include <deque>
#include <memory>
#include <optional>
#include <random>
#include <thread>
#include <vector>

class QSocketNotifier;
struct mosquitto;
struct mosquitto_message;
struct mqtt5__property;

/// A message that came from the broker.
struct BrokerMessage {
    QByteArray topic;
    QByteArray payload;
    QByteArray responseTopic; ///< empty: none
    QByteArray correlation;   ///< empty: none
    bool isRetained = false;
    bool wasLeft = false; ///< it came to the broker while nobody was here, or may have
    std::optional<std::chrono::seconds> expiry; ///< what is left of its time
};

/// The connection to the broker: there, or coming back. What is to be published waits meanwhile, in
/// a queue with a bound.
///
/// Belongs to one thread, whose event loop must run; it tells by signals. Nothing blocks: a name is
/// looked up and a connection is made on a thread of its own, the rest happens in the event loop.
class BrokerLink : public QObject
{
    Q_OBJECT

public:
    /// \a topics are what is subscribed to. \a config must outlive this object.
    BrokerLink(const BridgeConfig& config, std::vector<QByteArray> topics);
    ~BrokerLink() override;

    /// What the broker says of the bridge when it is gone without a word.
    void setWill(const QByteArray& topic, const QByteArray& payload);

    /// Begins to connect. False, with the reason on standard error, if the certificates are no use.
    bool start();

    bool isConnected() const { return state == State::Connected; }

    /// Whether a thread is connecting that cannot be ended: then nothing of this may be destroyed.
    bool isStuck() const { return state == State::Connecting; }

    /// Has a message published, once, at QoS 1, as soon as there is a broker to take it. What waits
    /// beyond the bound goes, the oldest first.
    void publish(const QByteArray& topic, const QByteArray& payload,
                 const QByteArray& correlation = {});

    /// Has a retained message published now; nothing while there is no broker.
    void publishRetained(const QByteArray& topic, const QByteArray& payload);

    /// Whether the broker has taken all of it.
    bool isEmpty() const { return waiting.empty() && underWay == 0; }

    quint64 dropped() const { return droppedCount; } ///< messages that went, of the queue
    quint64 reconnections() const { return connectionCount > 0 ? connectionCount - 1 : 0; }
    quint64 redelivered() const { return redeliveredCount; } ///< that came a second time
    qint64 waitingBytes() const { return waitingSize; }

    /// Says good-bye: the broker keeps its will for itself. No more connections.
    void end();

Q_SIGNALS:
    void connected();
    void disconnected(const QString& reason); ///< also of an attempt
    void received(const BrokerMessage& message);

private:
    enum class State { Idle, Connecting, Greeting, Connected, Ended };
    struct Outgoing {
        QByteArray topic;
        QByteArray payload;
        QByteArray correlation;
        bool retained = false;

        qint64 size() const { return topic.size() + payload.size() + correlation.size() + 64; }
    };

    // What libmosquitto calls.
    static void onConnect(mosquitto*, void* self, int code, int flags, const mqtt5__property*);
    static void onDisconnect(mosquitto*, void* self, int code, const mqtt5__property*);
    static void onMessage(mosquitto*, void* self, const mosquitto_message* message,
                          const mqtt5__property* properties);
    static void onPublish(mosquitto*, void* self, int id, int code, const mqtt5__property*);
    static void onSubscribe(mosquitto*, void* self, int id, int count, const int* granted,
                            const mqtt5__property*);
    static void onLog(mosquitto*, void* self, int level, const char* text);

    void connectNow();
    void attempted(int code);
    void greeted(int code, bool sessionIsOld);
    void take(const mosquitto_message& message, const mqtt5__property* properties);
    bool isRedelivered(const mosquitto_message& message, const QByteArray& correlation);
    void subscribe();
    void mark();
    void hand(const Outgoing& message);
    void flush();
    void read();
    void write();
    void watch();
    void unwatch();
    void lose(const QString& reason);
    void check(int code);

    const BridgeConfig& config;
    const std::vector<QByteArray> topics;
    const QByteArray markTopic;
    mosquitto* const mosq;
    mqtt5__property* connectProperties = nullptr;
    State state = State::Idle;
    bool wasConnected = false; // once: the library keeps what it was told
    std::thread connector;
    QSocketNotifier* readable = nullptr;
    QSocketNotifier* writable = nullptr;
    QTimer housekeeping;
    QTimer retry;
    RetryPause pause;
    std::mt19937 random{std::random_device{}()};
    QString loggedError;
    QString said; // the last reason that was shown

    std::deque<Outgoing> waiting;
    qint64 waitingSize = 0;
    int underWay = 0; // handed to the library, and not yet acknowledged
    quint64 droppedCount = 0;
    quint64 connectionCount = 0;
    quint64 redeliveredCount = 0;

    bool isBehindMark = true; // what was left in the broker has come
    QByteArray nonce;
    std::deque<QByteArray> lastReceived; // which the broker may not know that they came
    std::deque<QByteArray> ofSessionBefore;
};
