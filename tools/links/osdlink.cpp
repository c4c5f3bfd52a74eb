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

constexpr qint64 lookIntervalMs = 5;
constexpr qint64 connectLimitMs = 2000;
constexpr qint64 offerIntervalMs = 1000; // longer than a thread goes without processor time

// What came just before a hang-up is still on its way through the parser, on a loaded machine too.
constexpr qint64 hangUpPauseMs = 500;

} // namespace

OsdLink::OsdLink(const std::vector<Endpoint>& endpoints, Connections connections)
    : manager(CoreFactory::createOsdCoreObj(ConnOsdTcp)), established(std::move(connections))
{
    {
        const std::lock_guard lock(biz_Osd_CMDSWork::receiveOsdlock);
        biz_Osd_CMDSWork::receivequeueOsd.clear();
    }
    lastLook.start();
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
    client.offered.invalidate();
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

void OsdLink::send(const Command& command)
{
    for (Client& client : clients) {
        const bool addressed = command.to.isEmpty() || command.to.contains(client.endpoint.ip);
        if (addressed && trouble(client).isEmpty()) {
            client.waiting.push_back(command.osd);
            client.waiting.back().strIP = client.endpoint.ip;
        }
    }
}

void OsdLink::look()
{
    if (!lastLook.hasExpired(lookIntervalMs)) {
        return;
    }
    lastLook.start();
    const auto connections = established();
    for (Client& client : clients) {
        const QHostAddress host(client.endpoint.ip);
        const auto found =
            std::find_if(connections.begin(), connections.end(), [&](const auto& connection) {
                return connection.host == host && connection.port == client.endpoint.port;
            });
        follow(client, found == connections.end() ? nullptr : &*found);
    }
}

void OsdLink::follow(Client& client, const sockets::Connection* connection)
{
    if (connection != nullptr) {
        // From the second look on: the endpoint's thread has most likely noticed it by then.
        if (client.state == State::Connected) {
            sendWaiting(client, connection->hasSent);
        }
        noteConnected(client);
    } else if (client.state == State::Connected && !client.since.isValid()) {
        client.since.start();
    } else if (client.state == State::Connected && client.since.hasExpired(hangUpPauseMs)) {
        giveUp(client, State::Lost);
    } else if (client.state == State::Connecting && client.since.hasExpired(connectLimitMs)) {
        giveUp(client, State::Absent);
    }
}

void OsdLink::noteConnected(Client& client)
{
    client.state = State::Connected;
    client.since.invalidate();
    reached = true;
}

void OsdLink::sendWaiting(Client& client, bool hasSent)
{
    if (hasSent && client.offered.isValid()) { // it was the first record that was sent
        client.offered.invalidate();
        client.waiting.pop_front();
    }
    if (hasSent) {
        for (model_OsdParam& record : std::exchange(client.waiting, {})) {
            manager->sendDatatoDevice(&record);
        }
    } else if (!client.waiting.empty() &&
               (!client.offered.isValid() || client.offered.hasExpired(offerIntervalMs))) {
        client.offered.start();
        manager->sendDatatoDevice(&client.waiting.front());
    }
}

void OsdLink::giveUp(Client& client, State state)
{
    client.state = state;
    client.waiting.clear();
    client.offered.invalidate();
    warnings << QString("%1:%2 %3")
                    .arg(client.endpoint.ip)
                    .arg(client.endpoint.port)
                    .arg(trouble(client));
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
        for (Client& client : clients) { // it may have hung up before it was looked at
            if (client.endpoint.ip == record.strIP && client.state == State::Connecting) {
                noteConnected(client);
            }
        }
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

QString OsdLink::trouble(const Client& client)
{
    return client.state == State::Lost     ? "has hung up"
           : client.state == State::Absent ? "takes no connection: is it on, and is that its port?"
                                           : QString();
}

QString OsdLink::trouble(const QString& device) const
{
    const Client* client = clientAt(device);
    return client == nullptr ? QString() : trouble(*client);
}

bool OsdLink::isSending() const
{
    return std::any_of(clients.begin(), clients.end(),
                       [](const Client& client) { return !client.waiting.empty(); });
}

QString OsdLink::warning()
{
    return warnings.isEmpty() ? QString() : warnings.takeFirst();
}

QString OsdLink::problem() const
{
    const bool works = std::any_of(clients.begin(), clients.end(),
                                   [](const Client& client) { return trouble(client).isEmpty(); });
    return works ? QString() : "no endpoint is left";
}
