// SPDX-License-Identifier: MIT
#include "fileaccess.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include <sys/stat.h>
#include <unistd.h>

QString fileaccess::obstacle(const QString& path)
{
    const QByteArray name = QFile::encodeName(path);
    if (access(name.constData(), R_OK | W_OK) == 0) {
        return {};
    }
    QString reason = QString::fromLocal8Bit(std::strerror(errno));
    struct stat status {
    };
    if (stat(name.constData(), &status) != 0) {
        return reason;
    }
    constexpr unsigned permissionBits = 0777;
    const QFileInfo file(path);
    const bool groupHelps =
        file.groupId() != 0 && file.permission(QFile::ReadGroup | QFile::WriteGroup);
    return QString("%1 (%2, owner %3, group %4)%5")
        .arg(reason)
        .arg(status.st_mode & permissionBits, 4, 8, QChar('0'))
        .arg(file.owner(), file.group(),
             groupHelps ? QString(": join its group: sudo usermod -aG %1 $USER, and log in "
                                  "again")
                              .arg(file.group())
                        : QString());
}

QString fileaccess::holder(const std::function<bool(const std::string& name)>& fits)
{
    for (const QString& process : QDir("/proc").entryList(QDir::Dirs)) {
        const QString directory = "/proc/" + process;
        std::error_code error; // it may end meanwhile, or belong to somebody else
        const std::filesystem::directory_iterator files((directory + "/fd").toStdString(), error);
        const bool isNumber =
            std::all_of(process.begin(), process.end(), [](QChar c) { return c.isDigit(); });
        const bool holds =
            isNumber && !error && std::any_of(begin(files), end(files), [&](const auto& file) {
                std::error_code gone;
                return fits(std::filesystem::read_symlink(file, gone).string());
            });
        if (holds) {
            QFile name(directory + "/comm");
            name.open(QIODevice::ReadOnly);
            return QString("process %1 (%2)")
                .arg(process, QString::fromLocal8Bit(name.readAll().trimmed()));
        }
    }
    return {};
}
