// SPDX-License-Identifier: MIT
#include "brokerlink.h"

#include "output.h"

#include <QCryptographicHash>
#include <QSocketNotifier>

#include <algorithm>
#include <cstdlib>
#include <utility>

#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <poll.h>

namespace
{

constexpr int window = 100;       // messages under way, in each direction
constexpr int readsAtOnce = 64;   // then the other events of the thread have their turn
constexpr int topicsAtOnce = 200; // of one subscription

// The library is to be told once a process.
struct Library {
    Library() { mosquitto_lib_init(); }
    ~Library() { mosquitto_lib_cleanup(); }
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;
};

mosquitto* makeClient(const BridgeConfig& config, void* self)
{
    static const Library library;
    mosquitto* const client = mosquitto_new(config.broker.clientId.toUtf8().constData(),
                                            config.broker.session.count() == 0, self);
    if (client == nullptr) {
        throw std::bad_alloc();
    }
    mosquitto_int_option(client, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
    mosquitto_int_option(client, MOSQ_OPT_TCP_NODELAY, 1);
    mosquitto_int_option(client, MOSQ_OPT_RECEIVE_MAXIMUM, window);
    mosquitto_int_option(client, MOSQ_OPT_SEND_MAXIMUM, window);
    return client;
}

QByteArray textProperty(const mqtt5__property* properties, int which)
{
    char* text = nullptr;
    if (mosquitto_property_read_string(properties, which, &text, false) == nullptr) {
        return {};
    }
    QByteArray copy(text);
    std::free(text);
    return copy;
}

QByteArray correlationOf(const mqtt5__property* properties)
{
    void* bytes = nullptr;
    uint16_t size = 0;
    if (mosquitto_property_read_binary(properties, MQTT_PROP_CORRELATION_DATA, &bytes, &size,
                                       false) == nullptr) {
        return {};
    }
    QByteArray copy(static_cast<const char*>(bytes), size);
    std::free(bytes);
    return copy;
}

// What the library does not keep for the next connection.
bool isRefused(int code)
{
    switch (code) {
    case MOSQ_ERR_NOMEM:
    case MOSQ_ERR_PROTOCOL:
    case MOSQ_ERR_INVAL:
    case MOSQ_ERR_PAYLOAD_SIZE:
    case MOSQ_ERR_MALFORMED_UTF8:
    case MOSQ_ERR_QOS_NOT_SUPPORTED:
    case MOSQ_ERR_OVERSIZE_PACKET:
        return true;
    default:
        return false;
    }
}

bool isReadable(int descriptor)
{
    pollfd pending{descriptor, POLLIN, 0};
    return poll(&pending, 1, 0) == 1;
}

} // namespace

BrokerLink::BrokerLink(const BridgeConfig& configuration, std::vector<QByteArray> subscribed)
    : config(configuration), topics(std::move(subscribed)),
      markTopic(config.topic(config.broker.clientId, "mark").toUtf8()),
      mosq(makeClient(config, this))
{
    mosquitto_connect_v5_callback_set(mosq, onConnect);
    mosquitto_disconnect_v5_callback_set(mosq, onDisconnect);
    mosquitto_message_v5_callback_set(mosq, onMessage);
    mosquitto_publish_v5_callback_set(mosq, onPublish);
    mosquitto_subscribe_v5_callback_set(mosq, onSubscribe);
    mosquitto_log_callback_set(mosq, onLog);
    housekeeping.setInterval(std::chrono::seconds(1));
    connect(&housekeeping, &QTimer::timeout, this, [this] { check(mosquitto_loop_misc(mosq)); });
    retry.setSingleShot(true);
    connect(&retry, &QTimer::timeout, this, &BrokerLink::connectNow);
    mosquitto_property_add_int32(&connectProperties, MQTT_PROP_SESSION_EXPIRY_INTERVAL,
                                 static_cast<uint32_t>(config.broker.session.count()));
}

BrokerLink::~BrokerLink()
{
    unwatch();
    if (connector.joinable()) {
        connector.join();
    }
    mosquitto_destroy(mosq);
    mosquitto_property_free_all(&connectProperties);
}

void BrokerLink::setWill(const QByteArray& topic, const QByteArray& payload)
{
    mosquitto_will_set_v5(mosq, topic.constData(), static_cast<int>(payload.size()),
                          payload.constData(), 1, true, nullptr);
}

bool BrokerLink::start()
{
    const BridgeConfig::Broker& broker = config.broker;
    if (!broker.user.isEmpty()) {
        mosquitto_username_pw_set(mosq, broker.user.toUtf8().constData(),
                                  broker.password.constData());
    }
    if (broker.tls) {
        const auto file = [](const QString& path) { return path.toLocal8Bit(); };
        const QByteArray certificate = file(broker.certificate);
        const QByteArray key = file(broker.key);
        const auto orNone = [](const QByteArray& path) {
            return path.isEmpty() ? nullptr : path.constData();
        };
        const int code = mosquitto_tls_set(mosq, file(broker.ca).constData(), nullptr,
                                           orNone(certificate), orNone(key), nullptr);
        if (code != MOSQ_ERR_SUCCESS) {
            output::error(QString("broker: tls: %1").arg(mosquitto_strerror(code)));
            return false;
        }
    }
    connectNow();
    return true;
}

// The library looks a name up, and connects, before it returns: that may take minutes. Nothing else
// uses it meanwhile.
void BrokerLink::connectNow()
{
    if (state == State::Ended) {
        return;
    }
    state = State::Connecting;
    loggedError.clear();
    if (connector.joinable()) {
        connector.join(); // it has said its last word
    }
    connector = std::thread([this, isFirst = !std::exchange(wasConnected, true)] {
        const BridgeConfig::Broker& broker = config.broker;
        const int code =
            isFirst ? mosquitto_connect_bind_v5(mosq, broker.host.toUtf8().constData(), broker.port,
                                                static_cast<int>(broker.keepAlive.count()), nullptr,
                                                connectProperties)
                    : mosquitto_reconnect(mosq);
        const QString reason = code == MOSQ_ERR_ERRNO ? qt_error_string() : QString();
        QMetaObject::invokeMethod(
            this,
            [this, code, reason] {
                loggedError = reason.isEmpty() ? loggedError : reason;
                attempted(code);
            },
            Qt::QueuedConnection);
    });
}

void BrokerLink::attempted(int code)
{
    if (state == State::Ended) {
        return;
    }
    state = State::Greeting;
    if (code != MOSQ_ERR_SUCCESS) {
        lose(!loggedError.isEmpty() ? loggedError : QString(mosquitto_strerror(code)));
        return;
    }
    readable = new QSocketNotifier(mosquitto_socket(mosq), QSocketNotifier::Read, this);
    writable = new QSocketNotifier(mosquitto_socket(mosq), QSocketNotifier::Write, this);
    connect(readable, &QSocketNotifier::activated, this, &BrokerLink::read);
    connect(writable, &QSocketNotifier::activated, this, &BrokerLink::write);
    housekeeping.start();
    watch();
}

// Bytes that wait to be written are written when the socket takes them.
void BrokerLink::watch()
{
    if (writable != nullptr) {
        writable->setEnabled(mosquitto_want_write(mosq));
    }
}

void BrokerLink::unwatch()
{
    for (QSocketNotifier** notifier : {&readable, &writable}) {
        if (*notifier != nullptr) {
            (*notifier)->setEnabled(false);
            (*notifier)->deleteLater(); // its signal may have led here
            *notifier = nullptr;
        }
    }
}

void BrokerLink::read()
{
    for (int i = 0; i < readsAtOnce && readable != nullptr; ++i) {
        check(mosquitto_loop_read(mosq, 1));
        if (readable == nullptr || !isReadable(mosquitto_socket(mosq))) {
            break;
        }
    }
    write();
}

void BrokerLink::write()
{
    if (writable != nullptr && mosquitto_want_write(mosq)) {
        check(mosquitto_loop_write(mosq, 1));
    }
    watch();
}

void BrokerLink::check(int code)
{
    if (code != MOSQ_ERR_SUCCESS && (state == State::Greeting || state == State::Connected)) {
        lose(!loggedError.isEmpty() ? loggedError : QString(mosquitto_strerror(code)));
    }
}

void BrokerLink::lose(const QString& reason)
{
    if (state != State::Greeting && state != State::Connected) {
        return;
    }
    unwatch();
    housekeeping.stop();
    state = State::Idle;
    retry.start(pause.next());
    if (reason != std::exchange(said, reason)) {
        output::error(QString("broker: %1").arg(reason));
    }
    Q_EMIT disconnected(reason);
}

void BrokerLink::onConnect(mosquitto* /*client*/, void* self, int code, int flags,
                           const mqtt5__property* /*properties*/)
{
    static_cast<BrokerLink*>(self)->greeted(code, (flags & 1) != 0);
}

void BrokerLink::greeted(int code, bool sessionIsOld)
{
    if (code != 0) {
        loggedError = QString("it refuses the bridge: %1").arg(mosquitto_reason_string(code));
        return; // it closes the connection
    }
    state = State::Connected;
    said.clear();
    ++connectionCount;
    pause.succeeded();
    isBehindMark = !sessionIsOld;
    ofSessionBefore = sessionIsOld ? std::exchange(lastReceived, {}) : std::deque<QByteArray>();
    lastReceived.clear();
    subscribe();
    mark();
    output::error(
        QString("broker: connected to %1:%2").arg(config.broker.host).arg(config.broker.port));
    Q_EMIT connected();
    flush();
}

void BrokerLink::subscribe()
{
    std::vector<QByteArray> all = topics;
    all.push_back(markTopic);
    std::vector<char*> names;
    names.reserve(all.size());
    for (QByteArray& topic : all) {
        names.push_back(topic.data());
    }
    // Retained commands are to be seen as such, and those that are there once.
    constexpr int options = MQTT_SUB_OPT_RETAIN_AS_PUBLISHED | MQTT_SUB_OPT_SEND_RETAIN_NEW;
    for (std::size_t i = 0; i < names.size(); i += topicsAtOnce) {
        const auto count = std::min<std::size_t>(topicsAtOnce, names.size() - i);
        mosquitto_subscribe_multiple(mosq, nullptr, static_cast<int>(count), names.data() + i, 1,
                                     options, nullptr);
    }
}

// What was left in the broker comes before this, which the bridge sends to itself.
void BrokerLink::mark()
{
    if (!isBehindMark) {
        nonce = QByteArray::number(quint64{random()});
        mosquitto_publish_v5(mosq, nullptr, markTopic.constData(), static_cast<int>(nonce.size()),
                             nonce.constData(), 1, false, nullptr);
        ++underWay;
    }
}

void BrokerLink::onDisconnect(mosquitto* /*client*/, void* self, int code,
                              const mqtt5__property* /*properties*/)
{
    auto* const link = static_cast<BrokerLink*>(self);
    if (link->state == State::Connected && code > 0x80) {
        link->loggedError =
            QString("it ended the connection: %1").arg(mosquitto_reason_string(code));
    }
}

void BrokerLink::onSubscribe(mosquitto* /*client*/, void* /*self*/, int /*id*/, int count,
                             const int* granted, const mqtt5__property* /*properties*/)
{
    constexpr int refusal = 0x80;
    const auto refused =
        std::count_if(granted, granted + count, [](int code) { return code >= refusal; });
    if (refused > 0) {
        output::error(QString("broker: it refuses %1 of %2 subscriptions: its rights are wrong")
                          .arg(refused)
                          .arg(count));
    }
}

void BrokerLink::onLog(mosquitto* /*client*/, void* self, int level, const char* text)
{
    auto* const link = static_cast<BrokerLink*>(self);
    if (level == MOSQ_LOG_ERR) { // on the connecting thread, nobody else looks
        link->loggedError = QString::fromLocal8Bit(text).simplified();
    }
}

void BrokerLink::onMessage(mosquitto* /*client*/, void* self, const mosquitto_message* message,
                           const mqtt5__property* properties)
{
    static_cast<BrokerLink*>(self)->take(*message, properties);
}

void BrokerLink::take(const mosquitto_message& message, const mqtt5__property* properties)
{
    const QByteArray payload(static_cast<const char*>(message.payload), message.payloadlen);
    if (message.topic == markTopic) {
        isBehindMark = isBehindMark || payload == nonce;
        return;
    }
    BrokerMessage taken;
    taken.topic = message.topic;
    taken.payload = payload;
    taken.responseTopic = textProperty(properties, MQTT_PROP_RESPONSE_TOPIC);
    taken.correlation = correlationOf(properties);
    taken.isRetained = message.retain;
    taken.wasLeft = !isBehindMark;
    uint32_t expiry = 0;
    if (mosquitto_property_read_int32(properties, MQTT_PROP_MESSAGE_EXPIRY_INTERVAL, &expiry,
                                      false) != nullptr) {
        taken.expiry = std::chrono::seconds(expiry);
    }
    if (!isRedelivered(message, taken.correlation)) {
        Q_EMIT received(taken);
    }
}

// The broker sends again what it has not heard of, under the same id, if the connection was lost
// in between.
bool BrokerLink::isRedelivered(const mosquitto_message& message, const QByteArray& correlation)
{
    if (message.qos == 0) {
        return false;
    }
    QCryptographicHash hash(QCryptographicHash::Sha1);
    hash.addData(QByteArray::number(message.mid) + ' ' + QByteArray(message.topic) + ' ' +
                 correlation + ' ');
    hash.addData(
        QByteArray::fromRawData(static_cast<const char*>(message.payload), message.payloadlen));
    lastReceived.push_back(hash.result());
    if (lastReceived.size() > window) {
        lastReceived.pop_front();
    }
    const auto same =
        std::find(ofSessionBefore.begin(), ofSessionBefore.end(), lastReceived.back());
    if (isBehindMark || same == ofSessionBefore.end()) {
        return false;
    }
    ofSessionBefore.erase(same);
    ++redeliveredCount;
    return true;
}

void BrokerLink::publish(const QByteArray& topic, const QByteArray& payload,
                         const QByteArray& correlation)
{
    waiting.push_back({topic, payload, correlation});
    waitingSize += waiting.back().size();
    while (waitingSize > config.queueLimit && waiting.size() > 1) {
        waitingSize -= waiting.front().size();
        waiting.pop_front();
        ++droppedCount;
    }
    flush();
}

void BrokerLink::publishRetained(const QByteArray& topic, const QByteArray& payload)
{
    if (isConnected()) {
        hand({topic, payload, {}, true});
        watch();
    }
}

void BrokerLink::hand(const Outgoing& message)
{
    mqtt5__property* properties = nullptr;
    if (!message.correlation.isEmpty()) {
        mosquitto_property_add_binary(&properties, MQTT_PROP_CORRELATION_DATA,
                                      message.correlation.constData(),
                                      static_cast<uint16_t>(message.correlation.size()));
    }
    const int code = mosquitto_publish_v5(
        mosq, nullptr, message.topic.constData(), static_cast<int>(message.payload.size()),
        message.payload.constData(), 1, message.retained, properties);
    mosquitto_property_free_all(&properties);
    if (!isRefused(code)) {
        ++underWay;
        return;
    }
    ++droppedCount;
    output::error(QString("broker: a message for %1 was not sent: %2")
                      .arg(QString::fromUtf8(message.topic), mosquitto_strerror(code)));
}

void BrokerLink::flush()
{
    while (isConnected() && !waiting.empty() && underWay < window) {
        const Outgoing message = std::move(waiting.front());
        waitingSize -= message.size();
        waiting.pop_front();
        hand(message);
    }
    watch();
}

void BrokerLink::onPublish(mosquitto* /*client*/, void* self, int /*id*/, int /*code*/,
                           const mqtt5__property* /*properties*/)
{
    auto* const link = static_cast<BrokerLink*>(self);
    --link->underWay;
    link->flush();
}

void BrokerLink::end()
{
    if (isConnected()) {
        mosquitto_disconnect(mosq);
        write();
    }
    if (state != State::Connecting) {
        state = State::Ended;
    }
    unwatch();
    housekeeping.stop();
    retry.stop();
}
