// SPDX-License-Identifier: MIT
#pragma once

#include <QByteArray>
#include <QVector>

/// Pieces out of any bytes, for fuzz targets.
namespace cutscript
{

/// Each piece follows its length in one byte; the last may be shorter.
inline QVector<QByteArray> pieces(const QByteArray& script)
{
    QVector<QByteArray> all;
    for (QByteArray::size_type position = 0; position < script.size();) {
        const int length = static_cast<quint8>(script.at(position));
        all.append(script.mid(position + 1, length));
        position += 1 + length;
    }
    return all;
}

} // namespace cutscript
