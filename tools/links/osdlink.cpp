// SPDX-License-Identifier: MIT
#include "osdlink.h"

#include "biz_osd_cmdswork.h"
#include "corefactory.h"
#include "icoreosdbase.h"
#include "linkwatchers.h"
#include "recordtext.h"

#include <algorithm>
#include <mutex>
#include <utility>

namespace
{

constexpr std::chrono::milliseconds connectLimit{2000};

// What came just before a hang-up is still on its way through the parser.
constexpr std::chrono::milliseconds hangUpPause{500};

// A look that comes later than this counts as if it had come in time: where this thread gets no
// turn, those of the endpoints get none either, and may have something to tell.
constexpr std::chrono::milliseconds longestStep{100};

} // namespace

class OsdLink::Connections : public LinkObserver
{
public:
    struct Change {
        QString ip;
        LinkEvent::Kind kind;
    };

    void onEvent(const LinkEvent& event) override
    {
        if (event.kind == LinkEvent::Kind::Opened || event.kind == LinkEvent::Kind::Lost) {
            const std::lock_guard guard(lock);
            changes.push_back({event.peer, event.kind});
        }
    }

    std::vector<Change> take()
    {
        const std::lock_guard guard(lock);
        return std::exchange(changes, {});
    }

private:
    std::mutex lock; // a leaf
    std::vector<Change> changes;
};

OsdLink::OsdLink(const std::vector<Endpoint>& endpoints)
    : manager(CoreFactory::createOsdCoreObj(ConnOsdTcp)),
      connections(std::make_shared<Connections>())
{
    manager->addObserver(connections);
    linkwatchers::watch(*manager);
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
    client.waited.emplace(0);
}

void OsdLink::reopen(const QString& ip)
{
    if (Client* client = clientAt(ip)) {
        manager->closeClient(ip);
        begin(*client);
    }
}

const OsdLink::Client* OsdLink::clientAt(const QString& ip) const
{
    const auto found = std::find_if(clients.begin(), clients.end(), [&ip](const Client& client) {
        return client.endpoint.ip == ip;
    });
    return found == clients.end() ? nullptr : &*found;
}

OsdLink::Client* OsdLink::clientAt(const QString& ip)
{
    return const_cast<Client*>(std::as_const(*this).clientAt(ip));
}

void OsdLink::send(const Command& command)
{
    const model_OsdParam record =
        command.raw.isEmpty() ? command.osd : recordtext::osdCommand(command.raw).osd;
    for (Client& client : clients) {
        const bool addressed = command.to.isEmpty() || command.to.contains(client.endpoint.ip);
        if (addressed && trouble(client).isEmpty()) {
            client.waiting.push_back(record);
            client.waiting.back().strIP = client.endpoint.ip;
        }
        if (client.state == State::Connected) {
            sendWaiting(client);
        }
    }
}

void OsdLink::look()
{
    const std::chrono::nanoseconds passed(sinceLook.isValid() ? sinceLook.nsecsElapsed() : 0);
    sinceLook.start();
    for (Client& client : clients) {
        if (client.waited) {
            *client.waited += std::min<std::chrono::nanoseconds>(passed, longestStep);
        }
    }
    for (const Connections::Change& change : connections->take()) {
        Client* const client = clientAt(change.ip);
        if (client == nullptr) {
            continue;
        }
        if (change.kind == LinkEvent::Kind::Opened) {
            client->state = State::Connected;
            client->waited.reset();
            reached = true;
            sendWaiting(*client);
        } else if (client->state == State::Connected) {
            client->waited.emplace(0);
        } else if (client->state == State::Connecting) {
            giveUp(*client, State::Absent);
        }
    }
    for (Client& client : clients) {
        lookAtTime(client);
    }
}

void OsdLink::lookAtTime(Client& client)
{
    if (client.state == State::Connected && client.waited > hangUpPause) {
        giveUp(client, State::Lost);
    } else if (client.state == State::Connecting && client.waited > connectLimit) {
        giveUp(client, State::Absent);
    }
}

void OsdLink::sendWaiting(Client& client)
{
    for (model_OsdParam& record : std::exchange(client.waiting, {})) {
        manager->sendDatatoDevice(&record);
    }
}

void OsdLink::giveUp(Client& client, State state)
{
    client.state = state;
    client.waiting.clear();
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
