// SPDX-License-Identifier: MIT
#include "messagecapture.h"

#include <QLoggingCategory>

#include <mutex>

namespace
{

std::mutex captureLock;
// Never destroyed: a detached thread may still write a line while the process ends.
QStringList& captured = *new QStringList;
QtMessageHandler before = nullptr;
bool takesEverything = false;

void capture(QtMsgType type, const QMessageLogContext& context, const QString& text)
{
    const bool isDebugLine = qstrcmp(context.category, "default") == 0 && type == QtDebugMsg;
    if (isDebugLine || takesEverything) {
        const std::lock_guard lock(captureLock);
        captured << text;
    } else if (before != nullptr) {
        before(type, context, text);
    }
}

} // namespace

MessageCapture::MessageCapture(Kind kind)
{
    clear();
    takesEverything = kind == Kind::Everything;
    if (!takesEverything) {
        QLoggingCategory::defaultCategory()->setEnabled(QtDebugMsg, true);
    }
    before = qInstallMessageHandler(capture);
}

MessageCapture::~MessageCapture()
{
    qInstallMessageHandler(nullptr);
}

QStringList MessageCapture::lines() const
{
    const std::lock_guard lock(captureLock);
    return captured;
}

qsizetype MessageCapture::count(const QString& line) const
{
    return lines().count(line);
}

void MessageCapture::clear()
{
    const std::lock_guard lock(captureLock);
    captured.clear();
}
