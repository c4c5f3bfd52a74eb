// SPDX-License-Identifier: MIT
#include "linknotes.h"

#include "output.h"

#include <QLoggingCategory>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <mutex>
#include <utility>

namespace
{

constexpr const char* sendFailures[] = {"Send failed", "Send Broadcast failed", "Send unknown",
                                        "Send Broadcast unknown"};
constexpr std::size_t mostKept = 10000; // until they are taken; the others are counted

struct Notes {
    std::mutex lock; // a leaf
    DatagramNotes datagrams;
    linknotes::Refusals refusals;
};

// Never destroyed: the links' threads may still write debug lines while the process ends.
Notes& notes()
{
    static Notes* const instance = new Notes;
    return *instance;
}

std::atomic<bool> sendFailed{false};
std::atomic<bool> showsAll{false};

// Of what a stream link refuses, which has one device.
std::optional<Refusal> refusedOfStream(const QString& line)
{
    constexpr const char* digitsMark = "::getArrayData   dataStr==";
    if (line.endsWith(QLatin1String("CheckBlock default:\""))) {
        return Refusal{QStringLiteral("a reply whose block came too late or damaged"), QString(),
                       quotedBehind(line, "Recv data:")};
    }
    const int digits = line.indexOf(QLatin1String(digitsMark));
    if (digits < 0) {
        return std::nullopt;
    }
    QString shown = line.mid(digits + static_cast<int>(qstrlen(digitsMark)));
    shown.chop(1); // the closing quote
    return Refusal{QStringLiteral("a reply with a wrong checksum"), QString(),
                   QStringLiteral("<F%1>").arg(shown)};
}

void note(const QString& line)
{
    const bool isSendFailure =
        std::any_of(std::begin(sendFailures), std::end(sendFailures),
                    [&line](const char* text) { return line == QLatin1String(text); });
    sendFailed = sendFailed || isSendFailure;
    Notes& all = notes();
    const std::lock_guard guard(all.lock);
    auto refusal = all.datagrams.take(line);
    refusal = refusal ? refusal : refusedOfStream(line);
    if (refusal && all.refusals.kept.size() < mostKept) {
        all.refusals.kept.push_back(std::move(*refusal));
    } else if (refusal) {
        ++all.refusals.more;
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

linknotes::Refusals linknotes::takeRefusals()
{
    const std::lock_guard guard(notes().lock);
    return std::exchange(notes().refusals, {});
}
