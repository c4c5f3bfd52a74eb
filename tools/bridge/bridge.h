// SPDX-License-Identifier: MIT
#pragma once

#include "brokerlink.h"
#include "channel.h"
#include "commandmemory.h"
#include "deadlines.h"
#include "linkinbox.h"

#include <QElapsedTimer>
#include <QHash>
#include <QTimer>

#include <deque>
#include <memory>
#include <vector>

class OsdLink;

/// Brings commands from the broker to the links and answers back. Everything happens in the thread
/// that made it, whose event loop must run.
class Bridge : public QObject
{
    Q_OBJECT

public:
    /// \a config must outlive it.
    explicit Bridge(const BridgeConfig& configuration);
    ~Bridge() override;

    /// Opens the links and begins to connect to the broker. False, with the reason on standard
    /// error, if that can never be.
    bool start();

    /// Finishes what is under way, says that all links are offline, and ends. At most 1.7 s.
    void end();

    /// Whether it cannot be destroyed: a connection is being made that cannot be interrupted.
    bool isStuck() const { return broker.isStuck(); }

Q_SIGNALS:
    void ended();

private:
    void take(const BrokerMessage& message);
    Request letIn(Channel& channel, const BrokerMessage& message, const AnswerPlace& place);
    void refuse(Channel& channel, const AnswerPlace& place, int code, const QString& why);
    void publishAnswer(const Channel& channel, const AnswerPlace& place, const QByteArray& topic,
                       QJsonObject object);

    void drain();
    void handle(LinkInbox::Item& item);
    void handleReply(std::size_t index);
    void startNext(std::size_t index);
    bool mustWaitForBlock(std::size_t index);
    void sendTry(std::size_t index);
    void finish(std::size_t index, const QString& failure);
    void expired(std::size_t index);

    void open(std::size_t index);
    void nowOnline(Channel& channel);
    void lose(std::size_t index, const QString& why);
    void openOsd();
    void lookAtOsd();
    void lookAtLinks();

    void brokerConnected();
    void publishStatus(const Channel& channel);
    void publishOwnStatus(const QString& why);
    void publishSomeCounters();
    QJsonObject counters(const Channel& channel) const;
    QJsonObject ownCounters() const;
    void endStep();

    const BridgeConfig& config;
    const QByteArray prefix;
    std::shared_ptr<LinkInbox> inbox;
    std::shared_ptr<LinkWatch> udpWatch; // of the transport that UDP devices share
    std::vector<std::unique_ptr<Channel>> channels;
    QHash<QByteArray, std::size_t> byTopic; // of commands
    std::unique_ptr<OsdLink> osd;           // all endpoints
    BrokerLink broker;
    CommandMemory memory;
    Deadlines deadlines; // of a channel: of the command under way, or until it is opened again
    std::vector<std::size_t> idle;     // channels whose next command may start
    std::deque<std::size_t> wantBlock; // UDP channels that wait for the one that
    std::ptrdiff_t blockOwner = -1;    // awaits a block, which datagrams do not tell apart
    bool isDraining = false;
    quint64 droppedReported = 0;
    QTimer linkTimer;
    QTimer osdTimer;
    QTimer countersTimer;
    QTimer watchdogTimer;
    QTimer endTimer;
    QElapsedTimer ending; // valid: it ends
    bool saidGoodbye = false;
    std::size_t nextCounters = 0;
    double countersDue = 0;
};
