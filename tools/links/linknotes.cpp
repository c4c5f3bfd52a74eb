// SPDX-License-Identifier: MIT
#include "linknotes.h"

#include "commandframe.h"
#include "output.h"
#include "replykinds.h"

#include <QLoggingCategory>
#include <QStringList>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <mutex>
#include <utility>

namespace
{

constexpr std::size_t keptLimit = 10000; // until they are taken; the others are dropped
constexpr const char* sendFailures[] = {"Send failed", "Send Broadcast failed", "Send unknown",
                                        "Send Broadcast unknown"};

QString wrongChecksum()
{
    return QStringLiteral("a reply with a wrong checksum");
}

// What a debug line quotes behind a text, as it shows it; null if it does not.
QString quotedBehind(const QString& line, const char* text)
{
    const QString start = QLatin1Char('"') + QLatin1String(text);
    const auto end = line.indexOf(QLatin1String("\" \""), start.size());
    return line.startsWith(start)
               ? line.mid(start.size(), (end < 0 ? line.size() - 1 : end) - start.size())
               : QString();
}

// Tells from the debug lines of a UDP link which datagrams it refuses, each once. A datagram that
// is no reply may be the block of the reply before it: that reply's kind decides, and what the link
// says of the lengths.
class DatagramNotes
{
public:
    // Why the datagram in hand is refused; empty if this line refuses none.
    QString take(const QString& line)
    {
        const bool isDamaged = line == QLatin1String("CHKSUM Wrong return");
        if (const QString shown = quotedBehind(line, "Recv data:"); !shown.isNull()) {
            begin(shown);
        } else if (const QString sender = quotedBehind(line, "host ip:"); !sender.isNull()) {
            current.from = sender;
        } else if (isDamaged || line.endsWith(QLatin1String("\"reInitUdp()\""))) {
            awaited = Awaited::Nothing;
            isReply = false;
            return isDamaged ? wrongChecksum() : QString();
        } else if (line == QLatin1String("datagram.size()!=19 return") ||
                   line == QLatin1String("no '<' 'F'")) {
            return noReply();
        } else if (line.startsWith(QLatin1String("dataLeng = "))) {
            return judgeLength(line);
        }
        return {};
    }

    Refusal current; // the datagram in hand

private:
    enum class Awaited { Nothing, NoBytes, AnnouncedBlock, FixedBlock };

    // The one before was a reply if no line has said otherwise.
    void begin(const QString& shown)
    {
        if (isReply) {
            awaitBlock(current.bytes.toUtf8());
        }
        current = Refusal{{}, {}, shown};
        isReply = true;
        isJudged = true;
    }

    void awaitBlock(const QByteArray& reply)
    {
        using replykinds::Block;
        model_Protocoldata record;
        commandframe::decodeText(reply, record);
        const bool announces = replykinds::announcedLength(record) != 0;
        const Block block = replykinds::kindOf(record).onUdp;
        if (block == Block::FixedA || block == Block::FixedB) {
            awaited = Awaited::FixedBlock;
        } else if (announces && (block == Block::Announced || block == Block::AnnouncedIfAny)) {
            awaited = Awaited::AnnouncedBlock;
        } else if (block == Block::Announced) {
            awaited = Awaited::NoBytes;
        }
    }

    QString noReply()
    {
        isReply = false;
        const Awaited before = std::exchange(awaited, Awaited::Nothing);
        isJudged = before != Awaited::AnnouncedBlock; // a fixed block is taken whatever its length
        return before == Awaited::Nothing   ? QStringLiteral("bytes that are no reply")
               : before == Awaited::NoBytes ? QStringLiteral("a block that no reply announced")
                                            : QString();
    }

    QString judgeLength(const QString& line)
    {
        const QStringList words = line.split(QLatin1Char(' '), Qt::SkipEmptyParts);
        constexpr int announcedWord = 2; // "dataLeng = ANNOUNCED TAKEN"
        const QString announced = words.value(announcedWord);
        const QString taken = words.value(announcedWord + 1);
        if (std::exchange(isJudged, true) || announced == taken) {
            return {};
        }
        return QStringLiteral("a block of another length than announced, %1 bytes instead of %2")
            .arg(taken)
            .arg(static_cast<quint16>(announced.toInt()));
    }

    Awaited awaited = Awaited::Nothing;
    bool isReply = false; // the datagram in hand, as far as is known
    bool isJudged = true; // else the next lengths decide
};

struct Notes {
    std::mutex lock; // a leaf
    DatagramNotes datagrams;
    std::vector<Refusal> refusals;
};

// Never destroyed: the links' threads may still write debug lines while the process ends.
Notes& notes()
{
    static Notes* const instance = new Notes;
    return *instance;
}

std::atomic<bool> sendFailed{false};
std::atomic<bool> showsAll{false};

// What a stream link refuses, which has one device; without a reason if this line refuses nothing.
Refusal refusedOfStream(const QString& line)
{
    const QString digitsMark = QStringLiteral("::getArrayData   dataStr==");
    if (line.endsWith(QLatin1String("CheckBlock default:\""))) {
        return {QStringLiteral("a reply whose block came too late or damaged"), QString(),
                quotedBehind(line, "Recv data:")};
    }
    if (!line.contains(digitsMark)) {
        return {};
    }
    QString digits = line.section(digitsMark, 1);
    digits.chop(1); // the closing quote
    return {wrongChecksum(), QString(), QStringLiteral("<F%1>").arg(digits)};
}

void note(const QString& line)
{
    const bool isSendFailure =
        std::any_of(std::begin(sendFailures), std::end(sendFailures),
                    [&line](const char* text) { return line == QLatin1String(text); });
    sendFailed = sendFailed || isSendFailure;
    Notes& all = notes();
    const std::lock_guard guard(all.lock);
    const QString reason = all.datagrams.take(line);
    Refusal refusal = reason.isEmpty() ? refusedOfStream(line) : all.datagrams.current;
    if (!reason.isEmpty()) {
        refusal.reason = reason;
    }
    if (!refusal.reason.isEmpty() && all.refusals.size() < keptLimit) {
        all.refusals.push_back(std::move(refusal));
    }
}

void handle(QtMsgType type, const QMessageLogContext& context, const QString& message)
{
    const bool isDebugLine = type == QtDebugMsg && std::strcmp(context.category, "default") == 0;
    if (isDebugLine) {
        note(message.trimmed());
    }
    if (!isDebugLine || showsAll) {
        output::error(message);
    }
}

} // namespace

QString Refusal::text(const QString& link) const
{
    return QStringLiteral("%1 from %2: %3").arg(reason, from.isEmpty() ? link : from, bytes);
}

void linknotes::install(bool verbose)
{
    showsAll = verbose;
    QLoggingCategory::defaultCategory()->setEnabled(QtDebugMsg, true);
    qInstallMessageHandler(handle);
}

bool linknotes::takeSendFailure()
{
    return sendFailed.exchange(false);
}

std::vector<Refusal> linknotes::takeRefusals()
{
    const std::lock_guard guard(notes().lock);
    return std::exchange(notes().refusals, {});
}
