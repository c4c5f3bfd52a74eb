// SPDX-License-Identifier: MIT
#include "mqtttap.h"

#include <QHash>
#include <QtEndian>

#include <functional>
#include <memory>
#include <optional>

namespace
{

constexpr int publishPacket = 3;
constexpr int acknowledgementPacket = 4;
constexpr int correlationProperty = 9;

// Reads what MQTT 5 says of a packet's fields. Past the end everything is 0.
class Fields
{
public:
    explicit Fields(const QByteArray& packet) : bytes(packet) {}

    int byte() { return at < bytes.size() ? static_cast<quint8>(bytes.at(at++)) : 0; }
    int word()
    {
        const int high = byte();
        return high * 256 + byte();
    }
    QByteArray text() { return take(word()); }
    QByteArray take(int length)
    {
        QByteArray taken = bytes.mid(at, length);
        at += length;
        return taken;
    }
    int number() // of 1 to 4 bytes
    {
        int value = 0;
        for (int shift = 0; shift < 28; shift += 7) {
            const int next = byte();
            value |= (next & 0x7f) << shift;
            if ((next & 0x80) == 0) {
                break;
            }
        }
        return value;
    }
    QByteArray rest() const { return bytes.mid(at); }
    bool isAtEnd() const { return at >= bytes.size(); }

private:
    const QByteArray bytes;
    int at = 0;
};

// The properties that a PUBLISH may have.
QByteArray correlationIn(const QByteArray& properties)
{
    Fields fields(properties);
    QByteArray correlation;
    while (!fields.isAtEnd()) {
        switch (fields.number()) {
        case 1: // payload format
            fields.byte();
            break;
        case 2: // expiry
            fields.take(4);
            break;
        case 3: // content type
        case 8: // response topic
            fields.text();
            break;
        case correlationProperty:
            correlation = fields.text();
            break;
        case 11: // subscription
            fields.number();
            break;
        case 35: // topic alias
            fields.word();
            break;
        default: // 38, a user's own
            fields.text();
            fields.text();
        }
    }
    return correlation;
}

// The length of the whole packet at the start of the bytes, and of its fixed header.
struct Extent {
    int header = 0;
    int whole = 0;
};

std::optional<Extent> extentOf(const QByteArray& bytes)
{
    int value = 0;
    for (int i = 1; i <= 4 && i < bytes.size(); ++i) {
        value |= (bytes.at(i) & 0x7f) << (7 * (i - 1));
        if ((bytes.at(i) & 0x80) == 0) {
            const int whole = 1 + i + value;
            return bytes.size() >= whole ? std::optional<Extent>({1 + i, whole}) : std::nullopt;
        }
    }
    return std::nullopt;
}

} // namespace

// One way of one connection.
class MqttTap::Direction
{
public:
    explicit Direction(Passages& published) : passages(published) {}

    void take(const QByteArray& bytes, Direction& back)
    {
        pending += bytes;
        for (auto extent = extentOf(pending); extent; extent = extentOf(pending)) {
            const auto first = static_cast<quint8>(pending.at(0));
            const QByteArray packet = pending.mid(extent->header, extent->whole - extent->header);
            pending.remove(0, extent->whole);
            if (first >> 4 == publishPacket) {
                publish(first, Fields(packet));
            } else if (first >> 4 == acknowledgementPacket) {
                back.acknowledge(Fields(packet).word());
            }
        }
    }

private:
    void publish(int flags, Fields fields)
    {
        fields.text(); // topic
        const bool isAcknowledged = (flags & 6) != 0;
        const int id = isAcknowledged ? fields.word() : 0;
        const QByteArray correlation = correlationIn(fields.take(fields.number()));
        if (correlation.isEmpty()) {
            return;
        }
        Passage& passage = passages[correlation];
        ++((flags & 8) != 0 ? passage.repeated : passage.sent);
        passage.payload = fields.rest();
        if (isAcknowledged) {
            underWay.insert(id, correlation);
        }
    }

    void acknowledge(int id)
    {
        const QByteArray correlation = underWay.take(id);
        if (!correlation.isEmpty()) {
            ++passages[correlation].acknowledged;
        }
    }

    Passages& passages;
    QByteArray pending;
    QHash<int, QByteArray> underWay; // correlation data by packet id
};

MqttTap::MqttTap(const Broker& reached) : broker(reached)
{
    connect(&server, &QTcpServer::newConnection, this, &MqttTap::accept);
    server.listen(QHostAddress(QHostAddress::LocalHost));
}

void MqttTap::accept()
{
    while (QTcpSocket* const client = server.nextPendingConnection()) {
        ++connectionCount;
        auto* const far = new QTcpSocket(client);
        const auto up = std::make_shared<Direction>(fromClient);
        const auto down = std::make_shared<Direction>(fromBroker);
        const auto pass = [](QTcpSocket* from, QTcpSocket* to,
                             const std::shared_ptr<Direction>& way,
                             const std::shared_ptr<Direction>& back) {
            QObject::connect(from, &QTcpSocket::readyRead, to, [=] {
                const QByteArray bytes = from->readAll();
                way->take(bytes, *back);
                to->write(bytes);
            });
            QObject::connect(from, &QTcpSocket::disconnected, to, &QTcpSocket::disconnectFromHost);
        };
        pass(client, far, up, down);
        pass(far, client, down, up);
        connect(far, &QAbstractSocket::errorOccurred, client, &QTcpSocket::disconnectFromHost);
        connect(client, &QTcpSocket::disconnected, client, &QObject::deleteLater);
        far->connectToHost(broker.address(), broker.port());
    }
}
