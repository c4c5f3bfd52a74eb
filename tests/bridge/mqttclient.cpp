// SPDX-License-Identifier: MIT
#include "mqttclient.h"

#include "eventually.h"

#include <QJsonDocument>

#include <algorithm>
#include <iterator>
#include <mutex>
#include <utility>

#include <mosquitto.h>
#include <mqtt_protocol.h>

namespace
{

constexpr int keepAlive = 60; // s

QString textOf(const mosquitto_property* properties, int property)
{
    char* text = nullptr;
    mosquitto_property_read_string(properties, property, &text, false);
    QString copy = QString::fromUtf8(text);
    std::free(text);
    return copy;
}

QByteArray bytesOf(const mosquitto_property* properties, int property)
{
    void* bytes = nullptr;
    uint16_t length = 0;
    mosquitto_property_read_binary(properties, property, &bytes, &length, false);
    QByteArray copy(static_cast<const char*>(bytes), length);
    std::free(bytes);
    return copy;
}

} // namespace

QJsonObject MqttMessage::json() const
{
    return QJsonDocument::fromJson(payload).object();
}

struct MqttClient::Connection {
    explicit Connection(const Access& access)
    {
        static const int ready = mosquitto_lib_init();
        (void)ready;
        client = mosquitto_new(access.id.isEmpty() ? nullptr : access.id.toUtf8().constData(), true,
                               this);
        mosquitto_int_option(client, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
        mosquitto_int_option(client, MOSQ_OPT_TCP_NODELAY, 1);
        mosquitto_int_option(client, MOSQ_OPT_RECEIVE_MAXIMUM, 65535);
        mosquitto_int_option(client, MOSQ_OPT_SEND_MAXIMUM, 65535);
        mosquitto_reconnect_delay_set(client, 1, 1, false);
        if (!access.user.isEmpty()) {
            mosquitto_username_pw_set(client, access.user.toUtf8().constData(),
                                      access.password.toUtf8().constData());
        }
        if (!access.authority.isEmpty()) {
            const auto path = [](const QString& file) {
                return file.isEmpty() ? QByteArray() : file.toLocal8Bit();
            };
            const QByteArray certificate = path(access.papers.certificate);
            const QByteArray key = path(access.papers.key);
            mosquitto_tls_set(client, access.authority.toLocal8Bit().constData(), nullptr,
                              certificate.isEmpty() ? nullptr : certificate.constData(),
                              key.isEmpty() ? nullptr : key.constData(), nullptr);
        }
        mosquitto_connect_v5_callback_set(client, &Connection::connected);
        mosquitto_disconnect_v5_callback_set(client, &Connection::disconnected);
        mosquitto_subscribe_v5_callback_set(client, &Connection::subscribed);
        mosquitto_publish_v5_callback_set(client, &Connection::published);
        mosquitto_message_v5_callback_set(client, &Connection::received);
    }
    ~Connection()
    {
        mosquitto_disconnect(client);
        mosquitto_loop_stop(client, true);
        mosquitto_destroy(client);
    }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;

    static Connection& of(void* self) { return *static_cast<Connection*>(self); }

    static void connected(mosquitto* client, void* self, int reason, int /*flags*/,
                          const mosquitto_property* /*properties*/)
    {
        const std::lock_guard<std::mutex> lock(of(self).mutex);
        of(self).isUp = reason == 0;
        if (reason != 0) {
            of(self).refusal = reason;
            return;
        }
        for (const QByteArray& filter : of(self).filters) {
            mosquitto_subscribe_v5(client, nullptr, filter.constData(), 1, 0, nullptr);
        }
    }

    static void disconnected(mosquitto* /*client*/, void* self, int /*reason*/,
                             const mosquitto_property* /*properties*/)
    {
        const std::lock_guard<std::mutex> lock(of(self).mutex);
        of(self).isUp = false;
    }

    static void subscribed(mosquitto* /*client*/, void* self, int message, int count,
                           const int* granted, const mosquitto_property* /*properties*/)
    {
        const std::lock_guard<std::mutex> lock(of(self).mutex);
        if (count == 1 && granted[0] < 0x80) {
            of(self).granted.push_back(message);
        }
    }

    static void published(mosquitto* /*client*/, void* self, int /*message*/, int /*reason*/,
                          const mosquitto_property* /*properties*/)
    {
        const std::lock_guard<std::mutex> lock(of(self).mutex);
        ++of(self).acknowledged;
    }

    static void received(mosquitto* /*client*/, void* self, const mosquitto_message* message,
                         const mosquitto_property* properties)
    {
        const MqttMessage taken{
            QString::fromUtf8(message->topic),
            QByteArray(static_cast<const char*>(message->payload), message->payloadlen),
            message->retain,
            textOf(properties, MQTT_PROP_RESPONSE_TOPIC),
            bytesOf(properties, MQTT_PROP_CORRELATION_DATA),
            std::chrono::steady_clock::now()};
        const std::lock_guard<std::mutex> lock(of(self).mutex);
        of(self).arrived.push_back(taken);
    }

    mosquitto* client;
    std::mutex mutex; // over what follows
    bool isUp = false;
    int refusal = 0;
    int acknowledged = 0;
    std::vector<int> granted; // message ids of subscriptions
    std::vector<QByteArray> filters;
    std::vector<MqttMessage> arrived;
};

MqttClient::MqttClient(const Broker& broker, const Access& access)
    : connection(std::make_unique<Connection>(access))
{
    mosquitto_connect_async(connection->client, broker.address().toUtf8().constData(),
                            access.port != 0 ? access.port : broker.port(), keepAlive);
    mosquitto_loop_start(connection->client);
}

MqttClient::~MqttClient() = default;

bool MqttClient::isConnected() const
{
    const std::lock_guard<std::mutex> lock(connection->mutex);
    return connection->isUp;
}

int MqttClient::refusal() const
{
    const std::lock_guard<std::mutex> lock(connection->mutex);
    return connection->refusal;
}

bool MqttClient::connects() const
{
    return eventually([this] { return isConnected() || refusal() != 0; }) && isConnected();
}

bool MqttClient::disconnects() const
{
    return eventually([this] { return !isConnected(); });
}

bool MqttClient::subscribe(const QString& filter)
{
    int message = 0;
    {
        const std::lock_guard<std::mutex> lock(connection->mutex);
        connection->filters.push_back(filter.toUtf8());
    }
    return mosquitto_subscribe_v5(connection->client, &message, filter.toUtf8().constData(), 1, 0,
                                  nullptr) == MOSQ_ERR_SUCCESS &&
           eventually([this, message] {
               const std::lock_guard<std::mutex> lock(connection->mutex);
               return std::count(connection->granted.begin(), connection->granted.end(), message) >
                      0;
           });
}

bool MqttClient::publish(const QString& topic, const QByteArray& payload, const Options& options)
{
    mosquitto_property* properties = nullptr;
    if (!options.responseTopic.isEmpty()) {
        mosquitto_property_add_string(&properties, MQTT_PROP_RESPONSE_TOPIC,
                                      options.responseTopic.toUtf8().constData());
    }
    if (!options.correlation.isEmpty()) {
        mosquitto_property_add_binary(&properties, MQTT_PROP_CORRELATION_DATA,
                                      options.correlation.constData(),
                                      static_cast<uint16_t>(options.correlation.size()));
    }
    if (options.expiry) {
        mosquitto_property_add_int32(&properties, MQTT_PROP_MESSAGE_EXPIRY_INTERVAL,
                                     *options.expiry);
    }
    const int result = mosquitto_publish_v5(connection->client, nullptr, topic.toUtf8().constData(),
                                            static_cast<int>(payload.size()), payload.constData(),
                                            options.qos, options.retained, properties);
    mosquitto_property_free_all(&properties);
    handedOver += result == MOSQ_ERR_SUCCESS ? 1 : 0;
    return result == MOSQ_ERR_SUCCESS;
}

int MqttClient::acknowledged() const
{
    const std::lock_guard<std::mutex> lock(connection->mutex);
    return connection->acknowledged;
}

bool MqttClient::isAcknowledged() const
{
    return eventually([this] { return acknowledged() == handedOver; });
}

std::vector<MqttMessage> MqttClient::take()
{
    std::vector<MqttMessage> taken = std::exchange(held, {});
    const std::lock_guard<std::mutex> lock(connection->mutex);
    std::move(connection->arrived.begin(), connection->arrived.end(), std::back_inserter(taken));
    connection->arrived.clear();
    return taken;
}

MqttMessage MqttClient::next(const QString& topic)
{
    MqttMessage found;
    eventually([this, &topic, &found] {
        held = take();
        const auto at =
            std::find_if(held.begin(), held.end(),
                         [&topic](const MqttMessage& message) { return message.topic == topic; });
        if (at != held.end()) {
            found = *at;
            held.erase(at);
        }
        return !found.topic.isEmpty();
    });
    return found;
}
