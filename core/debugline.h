// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QLoggingCategory>
#include <QString>

/// The category of every debug line: Qt's "default". Used as qCDebug(debugLine) << ..., which
/// evaluates nothing behind it while the category is switched off, as it is once Qt has destroyed
/// its categories at the end of the process.
inline const QLoggingCategory& debugLine()
{
    const QLoggingCategory* const category = QLoggingCategory::defaultCategory();
    if (category != nullptr) {
        return *category;
    }
    static const auto* const off = new QLoggingCategory("off", QtFatalMsg);
    return *off;
}

/// Makes the static objects of Qt that a debug line uses, so that a static object of the library
/// which is made afterwards goes before them when the process ends.
inline void prepareDebugLines()
{
    if (debugLine().isDebugEnabled()) {
        const QString line = qFormatLogMessage(QtDebugMsg, QMessageLogContext(), QString());
        [[maybe_unused]] const QByteArray encoded = line.toLocal8Bit();
    }
}

/// A debug text followed directly by bytes that are read as UTF-8 up to the first zero byte. Debug
/// lines stream it as a QString, so received control characters come out escaped.
inline QString textWithBytes(const char* text, const QByteArray& bytes)
{
    return QLatin1String(text) + QString::fromUtf8(bytes.mid(0, bytes.indexOf('\0')));
}
