// SPDX-License-Identifier: MIT
#include "conversation.h"

#include "linknotes.h"
#include "output.h"
#include "recordtext.h"

#include <QElapsedTimer>
#include <QJsonArray>

#include <algorithm>

namespace
{

constexpr int refusalsShown = 5;
constexpr qint64 progressAfterMs = 300; // a quick reply shows none

double millisecondsOf(const QElapsedTimer& clock)
{
    constexpr double nanoseconds = 1e6;
    return static_cast<double>(clock.nsecsElapsed()) / nanoseconds;
}

QString refusedText(const QString& link)
{
    const std::vector<Refusal> refusals = linknotes::takeRefusals();
    QStringList shown;
    for (const Refusal& refusal : refusals) {
        if (shown.size() == refusalsShown) {
            shown << QString("%1 more").arg(static_cast<int>(refusals.size()) - refusalsShown);
            break;
        }
        shown << refusal.text(link);
    }
    return shown.isEmpty() ? QString() : "; came but refused: " + shown.join(", ");
}

} // namespace

Conversation::Conversation(DeviceLink& openLink, Terms conditions, const Interrupt& interruption)
    : open(openLink), terms(std::move(conditions)), interrupt(interruption),
      wanted(terms.replies > 0 ? terms.replies
             : terms.broadcast ? 0
                               : 1)
{
}

qint64 Conversation::takeUnawaited()
{
    const auto replies = open.takeReplies();
    return std::count_if(replies.begin(), replies.end(),
                         [this](const Reply& reply) { return open.isFromDevice(reply); });
}

void Conversation::takeReplies()
{
    for (Reply& reply : open.takeReplies()) {
        if (open.isFromDevice(reply)) {
            outcome.replies.push_back(std::move(reply));
        } else if (!strangers.contains(reply.from)) {
            strangers << reply.from;
        }
    }
}

qint64 Conversation::repliesOf(const QString& device) const
{
    return std::count_if(
        outcome.replies.begin(), outcome.replies.end(),
        [&device](const Reply& reply) { return device.isEmpty() || reply.from == device; });
}

bool Conversation::hasReplied(const QString& device) const
{
    return wanted > 0 && repliesOf(device) >= wanted;
}

QString Conversation::troubleOf(const QString& device) const
{
    return device.isEmpty() ? open.problem() : open.trouble(device);
}

// Nothing more is to be expected.
bool Conversation::isOver() const
{
    return std::all_of(devices.begin(), devices.end(), [this](const QString& one) {
        return hasReplied(one) || !troubleOf(one).isEmpty();
    });
}

bool Conversation::isAnswered() const
{
    const auto all = [this](auto condition) {
        return std::all_of(devices.begin(), devices.end(), condition);
    };
    return (terms.timeoutMs == 0 &&
            all([this](const QString& one) { return troubleOf(one).isEmpty(); })) ||
           all([this](const QString& one) { return hasReplied(one); }) ||
           (wanted == 0 && !outcome.replies.empty());
}

QStringList Conversation::silentDevices() const
{
    QStringList silent;
    for (const QString& device : devices) {
        if (repliesOf(device) == 0 && troubleOf(device).isEmpty()) {
            silent << device;
        }
    }
    return silent;
}

WaitEnd Conversation::waitForReplies()
{
    QElapsedTimer clock;
    clock.start();
    const double before = outcome.elapsedMs;
    const auto sent = [this] {
        takeReplies();
        return !open.isSending();
    };
    if (open.isSending() && waitFor(sent, forEver, interrupt) == WaitEnd::Interrupted) {
        return WaitEnd::Interrupted;
    }
    const auto replied = [&] {
        takeReplies();
        outcome.elapsedMs = before + millisecondsOf(clock);
        if (clock.hasExpired(progressAfterMs)) {
            output::progress(QString("waiting for a reply, %1 of %2 s")
                                 .arg(clock.elapsed() / 1000)
                                 .arg(static_cast<double>(terms.timeoutMs) / 1000.0));
        }
        return isOver();
    };
    const WaitEnd end = waitFor(replied, std::chrono::milliseconds(terms.timeoutMs), interrupt);
    output::endProgress();
    return end;
}

Outcome Conversation::exchange(Command command)
{
    outcome = {};
    strangers.clear();
    (void)linknotes::takeRefusals(); // of what came before
    devices = command.to.isEmpty() ? open.devices() : command.to;
    if (devices.isEmpty()) {
        devices << QString();
    }
    WaitEnd end = WaitEnd::TimeOut;
    while (end == WaitEnd::TimeOut && outcome.tries < terms.tries) {
        command.to = silentDevices();
        if (command.to.isEmpty()) {
            break;
        }
        ++outcome.tries;
        open.send(command);
        if (linknotes::takeSendFailure()) {
            outcome.failure = Outcome::notTaken(terms.link) + terms.silence->firewall("; ");
            return outcome;
        }
        outcome.sent = true;
        end = waitForReplies();
    }
    if (!isAnswered()) {
        outcome.interrupted = end == WaitEnd::Interrupted;
        outcome.failure = failure(end);
    }
    return outcome;
}

QString Conversation::failuresOfDevices() const
{
    QStringList failures;
    for (const QString& device : devices) {
        const qint64 count = repliesOf(device);
        const QString trouble = troubleOf(device);
        if (count >= wanted || (terms.timeoutMs == 0 && trouble.isEmpty())) {
            continue;
        }
        const QString missing =
            count == 0 ? "no reply" : QString("only %1 of %2 replies").arg(count).arg(wanted);
        failures << device + ' ' +
                        (trouble.isEmpty()
                             ? QString("gave %1 within %2 ms").arg(missing).arg(terms.timeoutMs)
                             : trouble) +
                        (count == 0 ? terms.silence->cause(device, trouble.isEmpty() ? ": " : "; ")
                                    : QString());
    }
    return failures.join("; ");
}

QString Conversation::failure(WaitEnd end) const
{
    if (!devices.contains(QString()) && end != WaitEnd::Interrupted) {
        return failuresOfDevices();
    }
    if (!open.problem().isEmpty()) {
        return terms.link + ": " + open.problem();
    }
    QString text = Outcome::silence(terms.link, terms.timeoutMs, outcome.tries);
    if (end == WaitEnd::Interrupted) {
        text = QString("%1: interrupted before a reply came").arg(terms.link);
    } else if (!outcome.replies.empty()) {
        text = QString("%1: only %2 of %3 replies within %4 ms")
                   .arg(terms.link)
                   .arg(outcome.replies.size())
                   .arg(wanted)
                   .arg(terms.timeoutMs);
    }
    text += (outcome.replies.empty() ? terms.silence->cause({}, ": ") : QString()) +
            refusedText(terms.link);
    if (!strangers.isEmpty()) {
        text += "; replies of others: " + strangers.join(", ");
    }
    return text;
}

QJsonObject Conversation::json(const Command& command, const Outcome& result) const
{
    QJsonObject object = result.json(terms.link, command, terms.fields);
    if (!devices.contains(QString())) {
        QJsonArray endpoints;
        for (const QString& device : devices) {
            endpoints.append(QJsonObject{{"address", device},
                                         {"replies", repliesOf(device)},
                                         {"trouble", open.trouble(device)}});
        }
        object.insert("endpoints", endpoints);
    }
    return object;
}
