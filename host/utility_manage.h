// SPDX-License-Identifier: MIT
#pragma once

#include "core_manage_host_export.h"
#include "model_globalenum.h"

#include <QString>

/// Logging, byte arithmetic and the current device type.
///
/// The links need writeLog, combineTwoByte, getHighByte, getLowByte and getDeviceType; the setters
/// are for the application. Every function may be called from any thread.
class CORE_MANAGE_HOST_EXPORT Utility_Manage
{
public:
    static constexpr qint64 defaultMaxBytes = 8'388'608; ///< of one log file
    static constexpr int defaultMaxFiles = 3;            ///< older ones that are kept

    /// Appends one line, with a time stamp, to the log file and hands it to the kernel before
    /// returning. Control characters, line and paragraph separators, and lone surrogates are
    /// written as escapes (`\n`, `\x1b`, `\u2028`), a backslash as two, so one call is one line
    /// whatever it is given and no text can forge a second one. Never throws; a log that cannot be
    /// written is reported once on standard error.
    static void writeLog(QString text);

    /// Chooses the log file and its bounds: the file rotates at \a maxBytes (at least 1024) and
    /// \a maxFiles older ones are kept (0 to 1000), so it never takes more than
    /// maxBytes * (maxFiles + 1). Missing directories are made. Returns false, and keeps the log as
    /// it was, when the file cannot be opened or a bound is out of range; the reason goes to
    /// standard error. Until it is called, lines go to core_manage.log in the application's local
    /// data directory.
    static bool setLogFile(const QString& path, qint64 maxBytes = defaultMaxBytes,
                           int maxFiles = defaultMaxFiles);

    /// The file that lines go to now; empty before the first line when none was chosen.
    static QString logFile();

    /// second * 256 + first, as a signed 16-bit value.
    static qint16 combineTwoByte(quint8 first, quint8 second);
    static quint8 getHighByte(quint16 value); ///< bits 8 to 15
    static quint8 getLowByte(quint16 value);  ///< bits 0 to 7

    /// The current device model; DeviceUnknown until set.
    static model_GlobalEnum::DeviceType getDeviceType();
    static void setDeviceType(model_GlobalEnum::DeviceType type); ///< any 32-bit value
};
