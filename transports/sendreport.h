// SPDX-License-Identifier: MIT
#pragma once

#include "debugline.h"
#include "processend.h"
#include "utility_manage.h"

#include <QString>

constexpr char sentLine[] = "Send successful";
constexpr char sendFailedLine[] = "Send failed";

/// Reports what became of a frame, on every link: \a line, unless it is null, to the debug log; and
/// of a frame that was sent, "Send successful:" followed by its \a text to the host's log. Any
/// thread; takes as long as the host's message handler and log take. Nothing once the process is
/// over.
inline void reportSend(bool isSent, const char* line, const QString& text)
{
    if (line != nullptr && !processend::over()) {
        qCDebug(debugLine) << line;
    }
    if (isSent && !processend::over()) { // the message handler may have taken its time
        Utility_Manage::writeLog(QLatin1String("Send successful:") + text);
    }
}
