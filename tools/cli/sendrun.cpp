// SPDX-License-Identifier: MIT
#include "sendrun.h"

#include "output.h"
#include "recordtext.h"
#include "toolerror.h"

#include <QElapsedTimer>
#include <QHash>

#include <algorithm>
#include <map>

namespace
{

constexpr double backlogMs = 20; // what a late command lets the next ones catch up
constexpr qint64 progressIntervalMs = 100;

// How long replies took, with a resolution that keeps a run of days small.
class ReplyTimes
{
public:
    void add(double ms)
    {
        ++counts[qRound64(ms * perMs)];
        ++total;
    }

    bool isEmpty() const { return total == 0; }

    // The time that this share of the replies did not exceed.
    double percentile(double share) const
    {
        const double rank = share * static_cast<double>(total);
        qint64 passed = 0;
        for (const auto& [time, count] : counts) {
            passed += count;
            if (static_cast<double>(passed) >= rank) {
                return static_cast<double>(time) / perMs;
            }
        }
        return 0;
    }

private:
    static constexpr double perMs = 1000;
    std::map<qint64, qint64> counts; // by microseconds
    qint64 total = 0;
};

class Run
{
public:
    Run(DeviceLink& openLink, const Conversation::Terms& conditions,
        const sendrun::Settings& chosen, const Interrupt& interruption)
        : open(openLink), terms(conditions), settings(chosen), interrupt(interruption),
          time(chosen.time), conversation(openLink, conditions, interruption)
    {
    }

    void sendAll();
    void sumUp() const;

private:
    bool waitUntil(double dueMs) const;
    bool isOver() const;
    qint64 expected() const;
    bool differs(const Command& command, const Outcome& outcome);
    void take(const Command& command, const Outcome& outcome);
    void show(const Command& command, const Outcome& outcome, bool isDifferent);
    void showProgress();
    qint64 lost() const { return sent - answered - (isCutShort ? 1 : 0); }
    QString summary() const;
    QJsonObject summaryJson() const;
    QString failure() const;

    DeviceLink& open;
    const Conversation::Terms& terms;
    const sendrun::Settings& settings;
    const Interrupt& interrupt;
    LineTime time;
    Conversation conversation;
    QElapsedTimer clock;
    qint64 progressAt = 0;
    double seconds = 0;
    qint64 sent = 0;
    qint64 answered = 0;
    qint64 different = 0;
    qint64 unawaited = 0;
    bool isCutShort = false; // the last one was interrupted
    ReplyTimes times;
    QHash<QByteArray, QByteArray> firstReplies; // by frame and sender
};

// How many commands there will be; 0: nobody knows.
qint64 Run::expected() const
{
    return settings.duration.number() > 0 ? settings.duration.number()
           : settings.repeats             ? 0
                                          : static_cast<qint64>(settings.commands.size());
}

bool Run::isOver() const
{
    const auto limit = settings.duration.limit();
    return (expected() > 0 && sent >= expected()) || isCutShort || interrupt.happened() ||
           !open.problem().isEmpty() || (limit != forEver && clock.hasExpired(limit.count()));
}

// False if the run ends before.
bool Run::waitUntil(double dueMs) const
{
    const auto limit = settings.duration.limit();
    const auto isDue = [&] { return static_cast<double>(clock.elapsed()) >= dueMs; };
    return isDue() ||
           waitFor(isDue,
                   limit == forEver ? forEver : limit - std::chrono::milliseconds(clock.elapsed()),
                   interrupt) == WaitEnd::Done;
}

bool Run::differs(const Command& command, const Outcome& outcome)
{
    std::map<QString, QByteArray> contents;
    for (const Reply& reply : outcome.replies) {
        contents[reply.from] += reply.line.toUtf8() + reply.block;
    }
    bool isDifferent = false;
    for (const auto& [from, content] : contents) {
        const QByteArray key = from.toUtf8() + ' ' + recordtext::frame(command, terms.fields);
        const auto first = firstReplies.constFind(key);
        if (first == firstReplies.constEnd()) {
            firstReplies.insert(key, content);
        } else {
            isDifferent = isDifferent || *first != content;
        }
    }
    return isDifferent;
}

void Run::take(const Command& command, const Outcome& outcome)
{
    ++sent;
    isCutShort = outcome.interrupted;
    const bool isDifferent = differs(command, outcome);
    different += isDifferent ? 1 : 0;
    if (outcome.ok()) {
        ++answered;
        if (!outcome.replies.empty()) {
            times.add(outcome.elapsedMs);
        }
    }
    if (!settings.quiet) {
        show(command, outcome, isDifferent);
    }
    showProgress();
}

void Run::show(const Command& command, const Outcome& outcome, bool isDifferent)
{
    if (settings.json) {
        QJsonObject object = conversation.json(command, outcome);
        object.insert("number", sent);
        object.insert("differs", isDifferent);
        output::result(object, outcome.ok() ? exitcode::success : exitcode::failed,
                       outcome.failure);
        return;
    }
    QString text = QString("%1 #%2 ").arg(time.text()).arg(sent);
    if (settings.commands.size() > 1) {
        text += recordtext::frameText(recordtext::frame(command, terms.fields)) + ' ';
    }
    if (!outcome.ok()) {
        output::line(text + outcome.failure, output::Tone::Bad);
        return;
    }
    QStringList replies;
    for (const Reply& reply : outcome.replies) {
        replies << reply.line;
    }
    text += replies.isEmpty() ? "sent"
                              : QString("%1 ms %2%3")
                                    .arg(outcome.elapsedMs, 0, 'f', 3)
                                    .arg(replies.join("; "), isDifferent ? " (differs)" : "");
    output::line(text, isDifferent ? output::Tone::Notable : output::Tone::Plain);
}

void Run::showProgress()
{
    const qint64 now = clock.elapsed();
    if (now < progressAt) {
        return;
    }
    progressAt = now + progressIntervalMs;
    QString text = QString("%1 commands, %2 lost").arg(sent).arg(lost());
    if (const qint64 all = expected(); all > 0) {
        constexpr int width = 30;
        const auto done = static_cast<int>(sent * width / all);
        text = QString("[%1%2] %3 of %4, %5 lost")
                   .arg(QString(done, '#'), QString(width - done, '.'))
                   .arg(sent)
                   .arg(all)
                   .arg(lost());
    }
    output::progress(QString("%1, %2 s").arg(text).arg(now / 1000));
}

void Run::sendAll()
{
    clock.start();
    double due = 0;
    while (!isOver() && waitUntil(due)) {
        const Command& command =
            settings.commands.at(static_cast<std::size_t>(sent) % settings.commands.size());
        unawaited += conversation.takeUnawaited();
        take(command, conversation.exchange(command));
        due = std::max(due + settings.intervalMs, static_cast<double>(clock.elapsed()) - backlogMs);
    }
    unawaited += conversation.takeUnawaited();
    constexpr double nanoseconds = 1e9;
    seconds = static_cast<double>(clock.nsecsElapsed()) / nanoseconds;
    output::endProgress();
}

QString Run::summary() const
{
    QString text = QString("%1: %2 sent, %3 answered, %4 lost, %5 replies that differ")
                       .arg(terms.link)
                       .arg(sent)
                       .arg(terms.timeoutMs > 0 ? answered : 0)
                       .arg(lost())
                       .arg(different);
    if (unawaited > 0) {
        text += QString(", %1 that nothing awaited").arg(unawaited);
    }
    text += QString(", %1 s").arg(seconds, 0, 'f', 3);
    if (!times.isEmpty()) {
        text += QString("\nreply time min/median/p99/max %1/%2/%3/%4 ms")
                    .arg(times.percentile(0), 0, 'f', 3)
                    .arg(times.percentile(0.5), 0, 'f', 3)
                    .arg(times.percentile(0.99), 0, 'f', 3)
                    .arg(times.percentile(1), 0, 'f', 3);
    }
    return text;
}

QJsonObject Run::summaryJson() const
{
    QJsonObject object{{"sent", sent},           {"answered", terms.timeoutMs > 0 ? answered : 0},
                       {"lost", lost()},         {"differ", different},
                       {"unawaited", unawaited}, {"seconds", seconds}};
    if (!times.isEmpty()) {
        object.insert("min_ms", times.percentile(0));
        object.insert("median_ms", times.percentile(0.5));
        object.insert("p99_ms", times.percentile(0.99));
        object.insert("max_ms", times.percentile(1));
    }
    return {{"link", terms.link}, {"summary", object}};
}

// Why this was no success; empty if it was.
QString Run::failure() const
{
    if (!open.problem().isEmpty()) {
        return QString("%1: %2").arg(terms.link, open.problem());
    }
    if (lost() > 0) {
        return QString("%1: %2 of %3 commands without their reply")
            .arg(terms.link)
            .arg(lost())
            .arg(sent);
    }
    const bool fellShort = settings.duration.fellShort(sent, interrupt.happened());
    return fellShort ? QString("%1: only %2 commands sent in the time").arg(terms.link).arg(sent)
                     : QString();
}

void Run::sumUp() const
{
    const QString wrong = failure();
    if (!settings.json) {
        output::line(summary());
    }
    if (!wrong.isEmpty()) {
        throw ToolError(open.wasOpen() ? exitcode::failed : exitcode::linkDown, wrong,
                        summaryJson());
    }
    if (settings.json) {
        output::result(summaryJson());
    }
}

} // namespace

void sendrun::run(DeviceLink& open, const Conversation::Terms& terms, const Settings& settings,
                  const Interrupt& interrupt)
{
    Run run(open, terms, settings, interrupt);
    run.sendAll();
    run.sumUp();
}
