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

namespace
{

constexpr int nameLimit = 15; // bytes that the kernel keeps of a program's name
constexpr char pseudoTerminals[] = "/dev/pts/";

QString nameOf(const QString& process)
{
    QFile name("/proc/" + process + "/comm");
    name.open(QIODevice::ReadOnly);
    return QString::fromLocal8Bit(name.readAll().trimmed());
}

// The first of the other processes that fits, as a person reads it.
QString otherProcess(const std::function<bool(const QString& process)>& fits)
{
    const QString own = QString::number(getpid());
    for (const QString& process : QDir("/proc").entryList(QDir::Dirs)) {
        const bool isNumber =
            std::all_of(process.begin(), process.end(), [](QChar c) { return c.isDigit(); });
        if (isNumber && process != own && fits(process)) {
            return QString("process %1 (%2)").arg(process, nameOf(process));
        }
    }
    return {};
}

// Whether a name means to us what that descriptor has open: a container has files of its own, and
// its pseudo-terminals have the names and numbers of others. A device's node may be another one.
bool isOurs(const std::string& name, const char* descriptor)
{
    struct stat ours {
    };
    struct stat theirs {
    };
    if (stat(name.c_str(), &ours) != 0 || stat(descriptor, &theirs) != 0) {
        return false;
    }
    const bool isDevice = S_ISCHR(ours.st_mode) && name.rfind(pseudoTerminals, 0) != 0;
    return isDevice ? ours.st_rdev == theirs.st_rdev
                    : ours.st_dev == theirs.st_dev && ours.st_ino == theirs.st_ino;
}

// What it has open; nothing if it ends meanwhile, or belongs to somebody else.
std::set<std::string> namesOf(const QString& process)
{
    std::error_code error;
    std::set<std::string> names;
    std::filesystem::directory_iterator file(("/proc/" + process + "/fd").toStdString(), error);
    for (; !error && file != std::filesystem::directory_iterator(); file.increment(error)) {
        std::error_code gone;
        std::string name = std::filesystem::read_symlink(*file, gone).string();
        if (name.rfind('/', 0) != 0 || isOurs(name, file->path().c_str())) {
            names.insert(std::move(name));
        }
    }
    return names;
}

} // namespace

QString fileaccess::refusal(const QString& path)
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
    return QString("%1 (%2, owner %3, group %4)")
        .arg(reason)
        .arg(status.st_mode & permissionBits, 4, 8, QChar('0'))
        .arg(file.owner(), file.group());
}

QString fileaccess::remedy(const QString& path)
{
    const QFileInfo file(path);
    const bool groupHelps =
        file.groupId() != 0 && file.permission(QFile::ReadGroup | QFile::WriteGroup);
    return groupHelps ? QString("join its group: sudo usermod -aG %1 $USER, and log in again")
                            .arg(file.group())
                      : QString();
}

QString fileaccess::obstacle(const QString& path)
{
    const QString reason = refusal(path);
    const QString help = reason.isEmpty() || !QFileInfo::exists(path) ? QString() : remedy(path);
    return help.isEmpty() ? reason : reason + ": " + help;
}

QString fileaccess::ruleAdvice()
{
    return "put this line into /etc/udev/rules.d/70-core-manage.rules, run sudo udevadm control "
           "--reload, plug it in again:";
}

QString fileaccess::holder(const std::function<bool(const std::set<std::string>& names)>& fits)
{
    return otherProcess([&fits](const QString& process) { return fits(namesOf(process)); });
}

QString fileaccess::linked(const QString& path)
{
    constexpr int mostLinks = 40; // as the kernel follows
    QFileInfo file(path);
    for (int i = 0; i < mostLinks && file.isSymLink(); ++i) {
        file.setFile(file.symLinkTarget());
    }
    return file.absoluteFilePath();
}

QString fileaccess::lineHolder(const QString& path)
{
    const std::string node = linked(path).toStdString();
    const QString port = path.startsWith("/dev/") ? path.mid(5) : path;
    const std::string lock = "/LCK.." + QString(port).replace('/', '_').toStdString();
    const QString locker = holder([&lock](const std::set<std::string>& names) {
        return std::any_of(names.begin(), names.end(), [&lock](const std::string& name) {
            return QString::fromStdString(name).endsWith(QString::fromStdString(lock));
        });
    });
    const bool isPseudo = node.rfind(pseudoTerminals, 0) == 0;
    return !locker.isEmpty() ? locker : holder([&](const std::set<std::string>& names) {
        const bool isDevice =
            isPseudo && (names.count("/dev/ptmx") + names.count("/dev/pts/ptmx")) != 0;
        return names.count(node) != 0 && !isDevice;
    });
}

QString fileaccess::running(const QString& name)
{
    return otherProcess(
        [&name](const QString& process) { return nameOf(process) == name.left(nameLimit); });
}
