// SPDX-License-Identifier: MIT
#pragma once

#include "bridgeconfig.h"
#include "commandmessage.h"
#include "linkcounters.h"
#include "outcome.h"
#include "retrypause.h"

#include <QElapsedTimer>

#include <deque>
#include <memory>
#include <optional>

/// Where the answer to a command goes.
struct AnswerPlace {
    QByteArray topic; ///< empty: the link's own
    QByteArray correlation;
};

/// A command that was let in.
struct Request {
    CommandMessage message;
    AnswerPlace place;
    std::optional<std::chrono::seconds> expiry; ///< what was left of its time when it came
    QElapsedTimer since;                        ///< when it came
};

/// How many commands a second may come, and at once.
class RateLimit
{
public:
    explicit RateLimit(int perSecond) : rate(perSecond), tokens(perSecond) { clock.start(); }

    bool take()
    {
        constexpr double nanoseconds = 1e9;
        tokens += static_cast<double>(clock.nsecsElapsed()) / nanoseconds * rate;
        clock.start();
        tokens = std::min(tokens, rate);
        const bool isThere = tokens >= 1;
        tokens -= isThere ? 1 : 0;
        return isThere;
    }

private:
    const double rate;
    double tokens;
    QElapsedTimer clock;
};

/// What the bridge knows of one named link.
struct Channel {
    Channel(const BridgeConfig& whole, const BridgeConfig::Link& written)
        : config(written), fields(written.target->kind().fields), limit(written.rate),
          place(written.target->places().front()),
          statusTopic(whole.topic(written.name, "status").toUtf8()),
          replyTopic(whole.topic(written.name, "reply").toUtf8()),
          errorTopic(whole.topic(written.name, "error").toUtf8()),
          countersTopic(whole.topic(written.name, "counters").toUtf8())
    {
    }

    bool isUdp() const { return place.isNetwork() && place.localPort != 0; }
    bool isOsd() const { return place.isNetwork() && place.localPort == 0; }

    const BridgeConfig::Link& config;
    const FieldSet fields;
    RateLimit limit;
    const LinkPlace place;
    const QByteArray statusTopic;
    const QByteArray replyTopic;
    const QByteArray errorTopic;
    const QByteArray countersTopic;

    std::unique_ptr<DeviceLink> link; // null: offline, or one of the OSD endpoints
    bool isOnline = false;
    bool isConnecting = false;         // an OSD endpoint's connection has begun
    QString reason = "not opened yet"; // why it is not
    int opening = 0;                   // which one
    RetryPause pause;

    std::deque<Request> waiting;
    std::optional<Request> current;
    Outcome outcome;       // of the current one
    QElapsedTimer elapsed; // since its first try

    const std::shared_ptr<LinkCounters> counters = std::make_shared<LinkCounters>();
    qint64 commands = 0; // that came
    qint64 answered = 0;
    qint64 failed = 0; // not answered by the device
    qint64 refused = 0;
    qint64 duplicates = 0;
    qint64 unawaited = 0; // replies
};
