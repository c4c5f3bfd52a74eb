// SPDX-License-Identifier: MIT
#include "fileholder.h"

#include <QDir>
#include <QFile>

#include <array>
#include <climits>

#include <unistd.h>

namespace
{

bool holds(const QString& process, const std::function<bool(const QByteArray&)>& fits)
{
    const QString directory = QStringLiteral("/proc/%1/fd").arg(process);
    for (const QString& name : QDir(directory).entryList(QDir::Files | QDir::System)) {
        std::array<char, PATH_MAX> target{};
        const QByteArray path = QString(directory + QLatin1Char('/') + name).toLocal8Bit();
        const ssize_t size = readlink(path.constData(), target.data(), target.size());
        if (size > 0 && fits(QByteArray(target.data(), static_cast<int>(size)))) {
            return true;
        }
    }
    return false;
}

} // namespace

QString fileholder::find(const std::function<bool(const QByteArray& name)>& fits)
{
    for (const QString& process : QDir(QStringLiteral("/proc")).entryList(QDir::Dirs)) {
        bool isNumber = false;
        process.toInt(&isNumber);
        if (isNumber && holds(process, fits)) {
            QFile name(QStringLiteral("/proc/%1/comm").arg(process));
            name.open(QIODevice::ReadOnly);
            return QStringLiteral("process %1 (%2)")
                .arg(process, QString::fromLocal8Bit(name.readAll().trimmed()));
        }
    }
    return {};
}
