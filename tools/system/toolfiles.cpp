// SPDX-License-Identifier: MIT
#include "toolfiles.h"

#include "toolerror.h"
#include "utility_manage.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <cstring>

#include <fcntl.h>

namespace
{

constexpr qint64 logLimit = qint64{1024} * 1024; // bytes
constexpr int olderFiles = 1;

struct Temporary {
    // TMPDIR may lead elsewhere later; QDir has no path of a directory that is not there.
    const QString parent =
        qEnvironmentVariableIsEmpty("TMPDIR") ? "/tmp" : qEnvironmentVariable("TMPDIR");
    const QTemporaryDir made{parent + "/coremanage-XXXXXX"};
};

const Temporary& temporary()
{
    static const Temporary instance;
    return instance;
}

// What keeps a file of this size out; empty if nothing does.
QString roomObstacle(qint64 bytes)
{
    if (!temporary().made.isValid()) {
        return temporary().made.errorString();
    }
    QFile file(temporary().made.filePath("room"));
    if (!file.open(QIODevice::WriteOnly)) {
        return file.errorString();
    }
    const int error = posix_fallocate(file.handle(), 0, bytes);
    file.remove();
    return error == 0 ? QString() : QString::fromLocal8Bit(std::strerror(error));
}

QString defaultLog()
{
    QString state = qEnvironmentVariable("XDG_STATE_HOME");
    if (!QDir::isAbsolutePath(state)) { // a relative one is to be ignored
        state = QDir::homePath() + "/.local/state";
    }
    return state + "/coremanage/coremanage.log";
}

// Starts the log there. Why it cannot be written; empty if it can.
QString logObstacle(const QString& path)
{
    const QFileInfo info(path);
    if (info.exists() && !info.isFile()) {
        return "is no plain file";
    }
    QDir().mkpath(info.absolutePath());
    QFile file(path);
    if (!file.open(QIODevice::Append)) {
        return file.errorString();
    }
    return Utility_Manage::setLogFile(path, logLimit, olderFiles) ? QString()
                                                                  : "the log does not take it";
}

} // namespace

QString toolfiles::temporaryPath()
{
    return temporary().made.isValid() ? temporary().made.path() : QString();
}

void toolfiles::requireRoom(qint64 bytes)
{
    const QString reason = roomObstacle(bytes);
    if (!reason.isEmpty()) {
        throw LinkDown(noRoom(QString("%1 bytes").arg(bytes), reason));
    }
}

QString toolfiles::noRoom(const QString& whose, const QString& reason)
{
    return QString("the temporary directory %1 does not take %2: %3: make room there, or "
                   "set TMPDIR to another directory")
        .arg(temporary().parent, whose, reason.simplified());
}

void toolfiles::startLog(const QString& path)
{
    const QString reason = logObstacle(path.isEmpty() ? defaultLog() : path);
    if (!reason.isEmpty() && !path.isEmpty()) {
        throw BadInput("--log", path, "a file that can be written: " + reason);
    }
    if (!reason.isEmpty()) {
        startTemporaryLog();
    }
}

void toolfiles::startTemporaryLog()
{
    if (!temporaryPath().isEmpty()) {
        (void)logObstacle(temporaryPath() + "/coremanage.log");
    }
}
