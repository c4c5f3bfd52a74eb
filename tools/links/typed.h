// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QString>

/// Numbers and bytes as a person types them. Each throws BadInput, which names \a option.
namespace typed
{

constexpr int fileLimit = 16'777'216; ///< bytes, where nothing else limits them

/// A decimal number, or a hexadecimal one after 0x, from \a least to \a most.
qint64 number(const QString& option, const QString& text, qint64 least, qint64 most);

/// At most \a limit bytes: those of "@FILE" as they are, or those of hexadecimal digits with or
/// without blanks.
QByteArray bytes(const QString& option, const QString& text, int limit);

/// All bytes of a file, at most \a limit; "-" is standard input up to its end.
QByteArray file(const QString& option, const QString& path, int limit);

} // namespace typed
