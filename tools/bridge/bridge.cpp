// SPDX-License-Identifier: MIT
#include "bridge.h"

#include "biz_cmdswork.h"
#include "linknotes.h"
#include "linkwatchers.h"
#include "osdlink.h"
#include "output.h"
#include "recordtext.h"
#include "replykinds.h"
#include "servicenotice.h"
#include "toolerror.h"

#include <QJsonArray>
#include <QJsonDocument>

#include <algorithm>
#include <array>
#include <utility>

namespace
{

using std::chrono::milliseconds;

constexpr milliseconds linkInterval{1000};
constexpr milliseconds osdInterval{100};
constexpr milliseconds countersInterval{100}; // some links each time
constexpr milliseconds endInterval{10};
constexpr qint64 finishLimitMs = 1000; // for commands under way, when the bridge ends
constexpr qint64 endLimitMs = 1700;    // and for all that is still to be said
constexpr const char* endReason = "the bridge has ended";

// As LinkEvent names them, in its order.
constexpr std::array<const char*, LinkEvent::kinds> kindNames{
    "sent",    "send_failed", "received", "reply", "refused",
    "skipped", "opened",      "closed",   "lost",  "reinitialised"};

QByteArray text(const QJsonObject& object)
{
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

std::vector<QByteArray> commandTopics(const BridgeConfig& config)
{
    std::vector<QByteArray> topics;
    for (const BridgeConfig::Link& link : config.links) {
        topics.push_back(config.topic(link.name, "command").toUtf8());
    }
    return topics;
}

// Whether a datagram of its own follows the reply to this command.
bool hasBlock(const Command& command)
{
    using replykinds::Block;
    const Block block = replykinds::kindOf(command.record).onUdp;
    return block != Block::None && block != Block::Immediate;
}

// A stranger's response topic must not make the bridge speak to itself or in the place of others.
bool isForAnswers(const QByteArray& topic, const QByteArray& prefix)
{
    const QByteArray leaf = topic.mid(topic.lastIndexOf('/') + 1);
    const bool isOwn = topic.startsWith(prefix) &&
                       QByteArrayList{"status", "command", "counters", "mark"}.contains(leaf);
    return !isOwn && !topic.startsWith('$') && !topic.contains('#') && !topic.contains('+');
}

QString reasonOf(const ToolError& error)
{
    return QString::fromUtf8(error.what());
}

} // namespace

Bridge::Bridge(const BridgeConfig& configuration)
    : config(configuration), prefix(config.prefix.toUtf8() + '/'),
      inbox(std::make_shared<LinkInbox>()), broker(config, commandTopics(config)),
      memory(config.duplicates), deadlines(config.links.size())
{
    QHash<QString, LinkWatch::Link> udpPeers;
    for (const BridgeConfig::Link& link : config.links) {
        const std::size_t index = channels.size();
        channels.push_back(std::make_unique<Channel>(config, link));
        byTopic.insert(config.topic(link.name, "command").toUtf8(), index);
        const Channel& channel = *channels.back();
        if (channel.isUdp()) {
            udpPeers.insert(channel.place.host.toString(), {index, channel.counters});
        }
    }
    udpWatch = std::make_shared<LinkWatch>(inbox, 0, udpPeers);
    connect(inbox.get(), &LinkInbox::filled, this, &Bridge::drain);
    connect(&deadlines, &Deadlines::expired, this, &Bridge::expired);
    connect(&broker, &BrokerLink::received, this, &Bridge::take);
    connect(&broker, &BrokerLink::connected, this, &Bridge::brokerConnected);
    connect(&linkTimer, &QTimer::timeout, this, &Bridge::lookAtLinks);
    connect(&osdTimer, &QTimer::timeout, this, &Bridge::lookAtOsd);
    connect(&countersTimer, &QTimer::timeout, this, &Bridge::publishSomeCounters);
    connect(&endTimer, &QTimer::timeout, this, &Bridge::endStep);
    connect(&watchdogTimer, &QTimer::timeout, this, [] { servicenotice::tell("WATCHDOG=1"); });
}

Bridge::~Bridge() = default;

bool Bridge::start()
{
    const QJsonObject will{{"status", "offline"},
                           {"name", config.broker.clientId},
                           {"reason", "the bridge is gone without a word"}};
    broker.setWill(config.topic(config.broker.clientId, "status").toUtf8(), text(will));
    if (!broker.start()) {
        return false;
    }
    for (std::size_t i = 0; i < channels.size(); ++i) {
        if (!channels[i]->isOsd()) {
            open(i);
        }
    }
    openOsd();
    linkTimer.start(linkInterval);
    countersTimer.start(countersInterval);
    if (servicenotice::watchdog().count() > 0) {
        watchdogTimer.start(servicenotice::watchdog() / 2);
    }
    servicenotice::tell("READY=1");
    return true;
}

void Bridge::take(const BrokerMessage& message)
{
    const auto found = byTopic.constFind(message.topic);
    if (found == byTopic.constEnd()) {
        return;
    }
    const std::size_t index = *found;
    Channel& channel = *channels[index];
    ++channel.commands;
    if (!message.isRetained && !message.correlation.isEmpty() &&
        memory.hasCome(message.topic, message.responseTopic, message.correlation,
                       message.payload)) {
        ++channel.duplicates;
        return;
    }
    AnswerPlace place{message.responseTopic, message.correlation};
    try {
        if (!isForAnswers(place.topic, prefix)) {
            place.topic.clear();
            throw BadInput("response topic", QString::fromUtf8(message.responseTopic),
                           "a topic of your own");
        }
        channel.waiting.push_back(letIn(channel, message, place));
    } catch (const ToolError& error) {
        refuse(channel, place, error.code(), reasonOf(error));
        return;
    }
    drain(); // what has come so far is no reply to this command
    startNext(index);
}

// The command, if it may be sent; throws what is wrong otherwise.
Request Bridge::letIn(Channel& channel, const BrokerMessage& message, const AnswerPlace& place)
{
    const auto mayNot = [](const QString& why) { throw ToolError(exitcode::failed, why); };
    const BridgeConfig::Link& link = channel.config;
    if (!channel.limit.take()) {
        mayNot(QString("more than %1 commands a second").arg(link.rate));
    }
    if (message.isRetained) {
        throw BadInput("a retained command: it would be sent again and again");
    }
    if (message.wasLeft && !config.sendStale) {
        mayNot("not sent: it was left in the broker while the bridge was away");
    }
    CommandMessage command =
        CommandMessage::parse(message.payload, channel.fields, link.blockLimit);
    const model_Protocoldata& record = command.command.record;
    const bool isAllowed =
        channel.isOsd() ? link.allowed.allowsAll() : link.allowed.allows(record.CMD, record.DAT1);
    if (!isAllowed) {
        throw BadInput(channel.isOsd()
                           ? QString("commands are not allowed here")
                           : QString("cmd 0x%1 with dat1 0x%2 is not allowed here")
                                 .arg(recordtext::hex(record.CMD), recordtext::hex(record.DAT1)));
    }
    if (channel.isOsd()) {
        command.command.to << channel.place.device;
    }
    link.target->check(command.command);
    if (ending.isValid()) {
        mayNot("not sent: the bridge ends");
    }
    if (!channel.isOnline) {
        throw LinkDown("not sent: offline: " + channel.reason);
    }
    if (channel.waiting.size() >= static_cast<std::size_t>(link.queueLimit)) {
        mayNot(QString("not sent: %1 commands wait already").arg(link.queueLimit));
    }
    Request request{std::move(command), place, message.expiry, {}};
    request.since.start();
    return request;
}

void Bridge::publishAnswer(const Channel& channel, const AnswerPlace& place,
                           const QByteArray& topic, QJsonObject object)
{
    object.insert("name", channel.config.name);
    broker.publish(place.topic.isEmpty() ? topic : place.topic, text(object), place.correlation);
}

void Bridge::refuse(Channel& channel, const AnswerPlace& place, int code, const QString& why)
{
    ++channel.refused;
    publishAnswer(channel, place, channel.errorTopic,
                  output::ended({{"link", channel.config.address}}, code, why));
}

// Commands are started when everything that has come was looked at.
void Bridge::drain()
{
    if (isDraining) {
        return;
    }
    isDraining = true;
    for (auto items = inbox->take(); !items.empty() || !idle.empty(); items = inbox->take()) {
        for (LinkInbox::Item& item : items) {
            handle(item);
        }
        if (items.empty()) {
            for (const std::size_t index : std::exchange(idle, {})) {
                startNext(index);
            }
        }
    }
    isDraining = false;
    // Whose a reply is, the watches have told: in the host's queue it is only in the way.
    const std::lock_guard lock(biz_CMDSWork::receiveHexCmdlock);
    biz_CMDSWork::receivequeueHexCmd.clear();
}

void Bridge::handle(LinkInbox::Item& item)
{
    Channel& channel = *channels[item.link];
    if (item.opening != channel.opening) {
        return;
    }
    using Kind = LinkEvent::Kind;
    if (item.kind == Kind::SendFailed && channel.current) {
        finish(item.link, Outcome::notTaken(channel.config.address));
    } else if (item.kind == Kind::Opened && channel.isOsd()) {
        nowOnline(channel);
    } else if (item.kind == Kind::Lost && channel.link && !channel.isUdp()) {
        const QString why = channel.link->problem();
        lose(item.link, why.isEmpty() ? QString("the device has gone") : why);
    } else if (const auto* record = std::get_if<model_Protocoldata>(&item.reply)) {
        channel.outcome.replies.push_back(recordtext::reply(*record, channel.fields));
    } else if (const auto* acknowledgement = std::get_if<model_OsdParam>(&item.reply)) {
        channel.outcome.replies.push_back(recordtext::reply(*acknowledgement));
    }
    if (item.kind == Kind::Reply) {
        handleReply(item.link);
    }
}

// A reply does not tell which command it answers: what comes meanwhile counts as that.
void Bridge::handleReply(std::size_t index)
{
    Channel& channel = *channels[index];
    if (channel.current) {
        finish(index, {});
        return;
    }
    ++channel.unawaited;
    QJsonArray replies;
    for (const Reply& reply : std::exchange(channel.outcome.replies, {})) {
        replies.append(reply.json);
    }
    publishAnswer(channel, {}, channel.replyTopic,
                  {{"link", channel.config.address}, {"replies", replies}, {"unawaited", true}});
}

// Blocks in datagrams say neither whose nor which they are, and the transport keeps one reply for
// the next block: so only one UDP device at a time is asked for a block.
bool Bridge::mustWaitForBlock(std::size_t index)
{
    const Channel& channel = *channels[index];
    const auto self = static_cast<std::ptrdiff_t>(index);
    if (!channel.isUdp() || !hasBlock(channel.waiting.front().message.command) ||
        blockOwner == self) {
        return false;
    }
    if (blockOwner < 0) {
        blockOwner = self;
        return false;
    }
    if (std::find(wantBlock.begin(), wantBlock.end(), index) == wantBlock.end()) {
        wantBlock.push_back(index);
    }
    return true;
}

void Bridge::startNext(std::size_t index)
{
    Channel& channel = *channels[index];
    while (!channel.current && !channel.waiting.empty()) {
        const Request& next = channel.waiting.front();
        if (next.expiry && !config.sendStale &&
            next.since.hasExpired(milliseconds(*next.expiry).count())) {
            const Request stale = std::move(channel.waiting.front());
            channel.waiting.pop_front();
            refuse(channel, stale.place, exitcode::failed, "not sent: older than its expiry");
            continue;
        }
        if (mustWaitForBlock(index)) {
            return;
        }
        channel.current = std::move(channel.waiting.front());
        channel.waiting.pop_front();
        channel.outcome = {};
        channel.elapsed.start();
        sendTry(index);
    }
}

void Bridge::sendTry(std::size_t index)
{
    Channel& channel = *channels[index];
    const CommandMessage& message = channel.current->message;
    ++channel.outcome.tries;
    channel.outcome.sent = true;
    deadlines.set(index, message.timeoutMs);
    if (channel.isOsd()) {
        osd->send(message.command);
    } else {
        channel.link->send(message.command);
    }
}

void Bridge::finish(std::size_t index, const QString& failure)
{
    constexpr double nanoseconds = 1e6;
    Channel& channel = *channels[index];
    const Request request = *std::exchange(channel.current, std::nullopt);
    Outcome outcome = std::exchange(channel.outcome, {});
    deadlines.clear(index);
    outcome.elapsedMs = static_cast<double>(channel.elapsed.nsecsElapsed()) / nanoseconds;
    ++(failure.isEmpty() ? channel.answered : channel.failed);
    publishAnswer(
        channel, request.place, channel.replyTopic,
        output::ended(outcome.json(channel.config.address, request.message.command, channel.fields),
                      failure.isEmpty() ? exitcode::success : exitcode::failed, failure));
    if (blockOwner == static_cast<std::ptrdiff_t>(index)) {
        blockOwner = -1;
        for (const std::size_t waiter : std::exchange(wantBlock, {})) {
            idle.push_back(waiter);
        }
    }
    idle.push_back(index);
    if (!isDraining) {
        drain();
    }
}

void Bridge::expired(std::size_t index)
{
    Channel& channel = *channels[index];
    if (!channel.current) {
        if (!channel.isOnline) {
            open(index);
        }
        return;
    }
    drain(); // what came in time counts
    if (!channel.current) {
        return;
    }
    const CommandMessage& message = channel.current->message;
    if (channel.outcome.tries < message.tries) {
        sendTry(index);
    } else {
        finish(index,
               Outcome::silence(channel.config.address, message.timeoutMs, channel.outcome.tries));
    }
}

void Bridge::open(std::size_t index)
{
    Channel& channel = *channels[index];
    if (ending.isValid()) {
        return;
    }
    if (channel.isOsd()) {
        osd->reopen(channel.place.device);
        channel.isConnecting = true;
        return;
    }
    channel.opening += channel.isUdp() ? 0 : 1;
    const std::shared_ptr<LinkObserver> watch =
        channel.isUdp() ? udpWatch
                        : std::make_shared<LinkWatch>(inbox, channel.opening,
                                                      LinkWatch::Link{index, channel.counters});
    linkwatchers::add(watch);
    try {
        channel.link = channel.config.target->open(false);
        nowOnline(channel);
    } catch (const ToolError& error) {
        lose(index, reasonOf(error));
    }
    linkwatchers::remove(watch);
}

void Bridge::nowOnline(Channel& channel)
{
    channel.isOnline = true;
    channel.isConnecting = false;
    channel.reason.clear();
    channel.pause.succeeded();
    publishStatus(channel);
}

// Also of one that could not be opened.
void Bridge::lose(std::size_t index, const QString& why)
{
    Channel& channel = *channels[index];
    const bool isNews = channel.isOnline || channel.reason != why;
    channel.isOnline = false;
    channel.isConnecting = false;
    channel.reason = why;
    channel.link.reset();
    for (const Request& request : std::exchange(channel.waiting, {})) {
        refuse(channel, request.place, exitcode::linkDown, "not sent: offline: " + why);
    }
    if (channel.current) {
        finish(index, QString("%1: %2").arg(channel.config.address, why));
    }
    deadlines.set(index, channel.pause.next().count());
    if (isNews) {
        output::error(QString("%1: offline: %2").arg(channel.config.name, why));
        publishStatus(channel);
    }
}

void Bridge::openOsd()
{
    std::vector<OsdLink::Endpoint> endpoints;
    QHash<QString, LinkWatch::Link> peers;
    for (std::size_t i = 0; i < channels.size(); ++i) {
        Channel& channel = *channels[i];
        if (channel.isOsd()) {
            endpoints.push_back({channel.place.device, channel.place.port});
            peers.insert(channel.place.device, {i, channel.counters});
            channel.reason = "no connection yet";
            channel.isConnecting = true;
        }
    }
    if (endpoints.empty()) {
        return;
    }
    const auto watch = std::make_shared<LinkWatch>(inbox, 0, peers);
    linkwatchers::add(watch);
    osd = std::make_unique<OsdLink>(endpoints);
    linkwatchers::remove(watch);
    osdTimer.start(osdInterval);
}

void Bridge::lookAtOsd()
{
    (void)osd->takeReplies(); // looks at its connections; the watch has told of replies
    while (!osd->warning().isEmpty()) {
    }
    for (std::size_t i = 0; i < channels.size(); ++i) {
        const Channel& channel = *channels[i];
        if (channel.isOsd()) {
            const QString why = osd->trouble(channel.place.device);
            if (!why.isEmpty() && (channel.isOnline || channel.isConnecting)) {
                lose(i, why);
            }
        }
    }
}

// Some transports stay open over a device that has gone.
void Bridge::lookAtLinks()
{
    for (std::size_t i = 0; i < channels.size(); ++i) {
        const Channel& channel = *channels[i];
        const QString why = channel.link && !channel.isUdp() ? channel.link->problem() : QString();
        if (!why.isEmpty()) {
            lose(i, why);
        }
    }
    (void)linknotes::takeRefusals(); // they are counted
}

void Bridge::brokerConnected()
{
    publishOwnStatus({});
    for (const auto& channel : channels) {
        publishStatus(*channel);
    }
    if (broker.dropped() > droppedReported) {
        const QString what = QString("%1 messages that waited for the broker were dropped")
                                 .arg(broker.dropped() - droppedReported);
        droppedReported = broker.dropped();
        output::error("broker: " + what);
        broker.publish(
            config.topic(config.broker.clientId, "error").toUtf8(),
            text(output::ended({{"name", config.broker.clientId}}, exitcode::failed, what)));
    }
}

void Bridge::publishStatus(const Channel& channel)
{
    QJsonObject status{{"status", channel.isOnline ? "online" : "offline"},
                       {"name", channel.config.name},
                       {"link", channel.config.address},
                       {"bridge", config.broker.clientId},
                       {"time", recordtext::zonedTime()}};
    if (!channel.isOnline) {
        status.insert("reason", channel.reason);
    }
    broker.publishRetained(channel.statusTopic, text(status));
}

void Bridge::publishOwnStatus(const QString& why)
{
    QJsonObject status{{"status", why.isEmpty() ? "online" : "offline"},
                       {"name", config.broker.clientId},
                       {"time", recordtext::zonedTime()}};
    if (!why.isEmpty()) {
        status.insert("reason", why);
    }
    broker.publishRetained(config.topic(config.broker.clientId, "status").toUtf8(), text(status));
}

// Evenly over the time, so that no command waits for the counters of a thousand links.
void Bridge::publishSomeCounters()
{
    const std::size_t all = channels.size() + 1;
    countersDue += static_cast<double>(all) * static_cast<double>(countersInterval.count()) /
                   static_cast<double>(milliseconds(config.counters).count());
    for (; countersDue >= 1; countersDue -= 1) {
        const std::size_t index = nextCounters++ % all;
        if (index < channels.size()) {
            broker.publishRetained(channels[index]->countersTopic,
                                   text(counters(*channels[index])));
        } else {
            broker.publishRetained(config.topic(config.broker.clientId, "counters").toUtf8(),
                                   text(ownCounters()));
        }
    }
}

QJsonObject Bridge::counters(const Channel& channel) const
{
    QJsonObject events;
    QJsonObject bytes;
    for (int i = 0; i < LinkEvent::kinds; ++i) {
        const QString name = kindNames.at(static_cast<std::size_t>(i));
        const auto kind = static_cast<LinkEvent::Kind>(i);
        events.insert(name, static_cast<qint64>(channel.counters->events(kind)));
        bytes.insert(name, static_cast<qint64>(channel.counters->bytes(kind)));
    }
    return {{"name", channel.config.name},
            {"link", channel.config.address},
            {"time", recordtext::zonedTime()},
            {"commands", channel.commands},
            {"answered", channel.answered},
            {"failed", channel.failed},
            {"refused", channel.refused},
            {"duplicates", channel.duplicates},
            {"unawaited", channel.unawaited},
            {"waiting", static_cast<qint64>(channel.waiting.size())},
            {"events", events},
            {"bytes", bytes}};
}

QJsonObject Bridge::ownCounters() const
{
    qint64 online = 0;
    for (const auto& channel : channels) {
        online += channel->isOnline ? 1 : 0;
    }
    return {{"name", config.broker.clientId},
            {"time", recordtext::zonedTime()},
            {"links", static_cast<qint64>(channels.size())},
            {"online", online},
            {"reconnections", static_cast<qint64>(broker.reconnections())},
            {"redelivered", static_cast<qint64>(broker.redelivered())},
            {"dropped", static_cast<qint64>(broker.dropped())},
            {"waiting_bytes", broker.waitingBytes()}};
}

void Bridge::end()
{
    if (ending.isValid()) {
        return;
    }
    servicenotice::tell("STOPPING=1");
    ending.start();
    for (const auto& channel : channels) {
        for (const Request& request : std::exchange(channel->waiting, {})) {
            refuse(*channel, request.place, exitcode::failed, "not sent: the bridge ends");
        }
    }
    endTimer.start(endInterval);
}

void Bridge::endStep()
{
    const bool isBusy = std::any_of(channels.begin(), channels.end(), [](const auto& channel) {
        return channel->current.has_value();
    });
    if (!saidGoodbye && (!isBusy || ending.hasExpired(finishLimitMs))) {
        saidGoodbye = true;
        for (std::size_t i = 0; i < channels.size(); ++i) {
            Channel& channel = *channels[i];
            if (channel.current) {
                finish(i, QString("%1: the bridge ended before a reply came")
                              .arg(channel.config.address));
            }
            channel.isOnline = false;
            channel.reason = endReason;
            publishStatus(channel);
        }
        publishOwnStatus(endReason);
    }
    if (saidGoodbye &&
        (!broker.isConnected() || broker.isEmpty() || ending.hasExpired(endLimitMs))) {
        endTimer.stop();
        broker.end();
        Q_EMIT ended();
    }
}
