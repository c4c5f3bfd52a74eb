// SPDX-License-Identifier: MIT
#include "linknotes.h"

#include "output.h"

#include <QLoggingCategory>

#include <atomic>
#include <cstring>
#include <mutex>

namespace
{

struct Row {
    const char* debugLine;
    const char* meaning; // null: a frame did not go out
};

constexpr Row rows[] = {
    {"Send failed", nullptr},
    {"Send Broadcast failed", nullptr},
    {"Send unknown", nullptr},
    {"Send Broadcast unknown", nullptr},
    {"CHKSUM Wrong return", "a reply with a wrong checksum"},
    {"arrayreceived.isEmpty()||stdCMDIn.isEmpty()", "bytes that are no reply"},
    {"arraylen=!arrayreceived.size() return", "a block that no reply announced"},
    {"combineTwoByte(parameters.DAT3, parameters.DAT4) != parameters.arryDatablock.size() return",
     "a block of another length than announced"},
};

// Lines that carry what was received.
constexpr Row fragments[] = {
    {"::getArrayData   dataStr==", "a reply with a wrong checksum"},
    {"CheckBlock default:", "a reply whose block came too late or damaged"},
};

std::mutex lock; // a leaf; guards refusals
QStringList refusals;
std::atomic<bool> sendFailed{false};
std::atomic<bool> showsAll{false};

void refuse(const char* meaning)
{
    const std::lock_guard guard(lock);
    if (!refusals.contains(QLatin1String(meaning))) {
        refusals << QLatin1String(meaning);
    }
}

void note(const QString& line)
{
    for (const Row& row : fragments) {
        if (line.contains(QLatin1String(row.debugLine))) {
            refuse(row.meaning);
        }
    }
    for (const Row& row : rows) {
        if (line != QLatin1String(row.debugLine)) {
            continue;
        }
        if (row.meaning == nullptr) {
            sendFailed = true;
            return;
        }
        refuse(row.meaning);
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

QStringList linknotes::takeRefusals()
{
    const std::lock_guard guard(lock);
    QStringList taken;
    taken.swap(refusals);
    return taken;
}
