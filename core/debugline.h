// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QLoggingCategory>
#include <QString>

/// The category of every debug line: Qt's "default". Used as qCDebug(debugLine) << ..., which
/// evaluates nothing behind it while the category is switched off.
inline const QLoggingCategory& debugLine()
{
    return *QLoggingCategory::defaultCategory();
}

/// A debug text followed directly by bytes that are read as UTF-8 up to the first zero byte. Debug
/// lines stream it as a QString, so received control characters come out escaped.
inline QString textWithBytes(const char* text, const QByteArray& bytes)
{
    return QLatin1String(text) +
           QString::fromUtf8(
               bytes.constData(),
               static_cast<int>(qstrnlen(bytes.constData(), static_cast<uint>(bytes.size()))));
}
