// SPDX-License-Identifier: MIT
#include "filerights.h"

#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <cstring>

#include <sys/stat.h>

QString filerights::of(const QString& path)
{
    struct stat status {
    };
    if (stat(QFile::encodeName(path).constData(), &status) != 0) {
        return QString::fromLocal8Bit(std::strerror(errno));
    }
    constexpr unsigned permissionBits = 0777;
    const QFileInfo file(path);
    return QStringLiteral("%1, owner %2, group %3")
        .arg(status.st_mode & permissionBits, 4, 8, QLatin1Char('0'))
        .arg(file.owner(), file.group());
}

bool filerights::groupHelps(const QString& path)
{
    const QFileInfo file(path);
    return file.groupId() != 0 && file.permission(QFile::ReadGroup | QFile::WriteGroup);
}
