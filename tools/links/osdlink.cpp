// SPDX-License-Identifier: MIT
#include "osdlink.h"

#include "biz_osd_cmdswork.h"
#include "corefactory.h"
#include "icoreosdbase.h"
#include "recordtext.h"

#include <algorithm>
#include <utility>

namespace
{

constexpr qint64 connectTime = 2000; // ms
constexpr qint64 lookInterval = 50;  // ms, while nothing is expected

// What came just before a hang-up is still on its way through the parser.
constexpr qint64 goneTime = 100; // ms

} // namespace

OsdLink::OsdLink(const std::vector<Endpoint>& endpoints, Connections connections)
    : manager(CoreFactory::createOsdCoreObj(ConnOsdTcp)), established(std::move(connections))
{
    {
        const std::lock_guard lock(biz_Osd_CMDSWork::receiveOsdlock);
        biz_Osd_CMDSWork::receivequeueOsd.clear();
    }
    for (const Endpoint& endpoint : endpoints) {
        Client client;
        client.endpoint = endpoint;
        begin(client);
        clients.push_back(std::move(client));
    }
}

OsdLink::~OsdLink()
{
    delete std::exchange(CoreFactory::iOsdCore, nullptr);
}

void OsdLink::begin(Client& client)
{
    manager->openClient(client.endpoint.ip, client.endpoint.port);
    client.state = State::Connecting;
    client.since.start();
    client.hasSent = false;
    lastLook.invalidate();
}

void OsdLink::reopen(const QString& ip)
{
    for (Client& client : clients) {
        if (client.endpoint.ip == ip) {
            manager->closeClient(ip);
            begin(client);
        }
    }
}

const OsdLink::Client* OsdLink::clientAt(const QString& ip) const
{
    const auto found = std::find_if(clients.begin(), clients.end(), [&ip](const Client& client) {
        return client.endpoint.ip == ip;
    });
    return found == clients.end() ? nullptr : &*found;
}

bool OsdLink::isConnected(const QString& ip) const
{
    const Client* client = clientAt(ip);
    return client != nullptr && client->state == State::Connected;
}

void OsdLink::send(const Command& command)
{
    for (Client& client : clients) {
        const bool addressed = command.to.isEmpty() || command.to.contains(client.endpoint.ip);
        if (addressed && trouble(client.endpoint.ip).isEmpty()) {
            client.waiting.push_back(command.osd);
            client.waiting.back().strIP = client.endpoint.ip;
        }
    }
    lastLook.invalidate();
    look();
}

void OsdLink::look()
{
    const bool isQuiet = std::all_of(clients.begin(), clients.end(), [](const Client& client) {
        return client.state != State::Connecting && client.waiting.empty() && !client.underWay;
    });
    if (isQuiet && lastLook.isValid() && !lastLook.hasExpired(lookInterval)) {
        return;
    }
    lastLook.start();
    for (Client& client : clients) { // before the connections: what was written is seen there then
        client.isDone = !client.underWay || client.underWay->strParam.isDetached();
    }
    const auto connections = established();
    for (Client& client : clients) {
        const QHostAddress host(client.endpoint.ip);
        const auto found =
            std::find_if(connections.begin(), connections.end(), [&](const auto& connection) {
                return connection.host == host && connection.port == client.endpoint.port;
            });
        const bool connected = found != connections.end();
        follow(client, connected, connected && found->hasSent);
    }
}

void OsdLink::follow(Client& client, bool connected, bool hasSent)
{
    if (connected) {
        client.state = State::Connected;
        client.hasSent = hasSent;
        client.since.invalidate();
        reached = true;
        sendWaiting(client);
    } else if (client.state == State::Connected && !client.since.isValid()) {
        client.since.start();
    } else if (client.state == State::Connected && client.since.hasExpired(goneTime)) {
        giveUp(client, State::Lost);
    } else if (client.state == State::Connecting && client.since.hasExpired(connectTime)) {
        giveUp(client, State::Absent);
    }
}

void OsdLink::sendWaiting(Client& client)
{
    if (!client.isDone) {
        return;
    }
    if (client.underWay && !client.hasSent) {
        emitRecord(*client.underWay);
        return;
    }
    client.underWay.reset();
    while (!client.waiting.empty()) {
        model_OsdParam record = std::move(client.waiting.front());
        client.waiting.pop_front();
        if (!client.hasSent) {
            // Every thread that a record is offered to holds a share of this text until it is done.
            record.strParam = QString::number(++serial);
            client.underWay = record;
            emitRecord(std::move(record));
            return;
        }
        emitRecord(std::move(record));
    }
}

void OsdLink::emitRecord(model_OsdParam record)
{
    manager->sendDatatoDevice(&record);
}

void OsdLink::giveUp(Client& client, State state)
{
    client.state = state;
    client.waiting.clear();
    client.underWay.reset();
    warnings << QStringLiteral("%1:%2 %3")
                    .arg(client.endpoint.ip)
                    .arg(client.endpoint.port)
                    .arg(trouble(client.endpoint.ip));
}

QByteArray OsdLink::frameOf(const Command& command) const
{
    return recordtext::frame(command, FieldSet::OsdFrame);
}

QJsonObject OsdLink::jsonOf(const Command& command) const
{
    return recordtext::json(command, FieldSet::OsdFrame);
}

std::vector<Reply> OsdLink::takeReplies()
{
    look();
    std::deque<model_OsdParam> records;
    {
        const std::lock_guard lock(biz_Osd_CMDSWork::receiveOsdlock);
        records.swap(biz_Osd_CMDSWork::receivequeueOsd);
    }
    std::vector<Reply> replies;
    replies.reserve(records.size());
    for (const model_OsdParam& record : records) {
        replies.push_back(recordtext::reply(record));
    }
    return replies;
}

bool OsdLink::isFromDevice(const Reply& reply) const
{
    return clientAt(reply.from) != nullptr;
}

QStringList OsdLink::devices() const
{
    QStringList ips;
    for (const Client& client : clients) {
        ips << client.endpoint.ip;
    }
    return ips;
}

QString OsdLink::trouble(const QString& device) const
{
    const Client* client = clientAt(device);
    if (client != nullptr && client->state == State::Lost) {
        return QStringLiteral("has hung up");
    }
    if (client != nullptr && client->state == State::Absent) {
        return QStringLiteral("takes no connection: is it on, and is that its port?");
    }
    return {};
}

bool OsdLink::isSending() const
{
    return std::any_of(clients.begin(), clients.end(), [](const Client& client) {
        return !client.waiting.empty() || client.underWay;
    });
}

bool OsdLink::wasOpen() const
{
    return reached;
}

QString OsdLink::warning()
{
    return warnings.isEmpty() ? QString() : warnings.takeFirst();
}

QString OsdLink::problem() const
{
    const bool works = std::any_of(clients.begin(), clients.end(), [this](const Client& client) {
        return trouble(client.endpoint.ip).isEmpty();
    });
    return works ? QString() : QStringLiteral("no endpoint is left");
}
