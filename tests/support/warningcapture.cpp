// SPDX-License-Identifier: MIT
#include "warningcapture.h"

#include <QtGlobal>

#include <mutex>

namespace
{

std::mutex captureLock;
QStringList captured;

void capture(QtMsgType /*type*/, const QMessageLogContext& /*context*/, const QString& text)
{
    const std::lock_guard lock(captureLock);
    captured << text;
}

} // namespace

WarningCapture::WarningCapture()
{
    {
        const std::lock_guard lock(captureLock);
        captured.clear();
    }
    qInstallMessageHandler(capture);
}

WarningCapture::~WarningCapture()
{
    qInstallMessageHandler(nullptr);
}

QStringList WarningCapture::lines() const
{
    const std::lock_guard lock(captureLock);
    return captured;
}
