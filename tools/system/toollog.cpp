// SPDX-License-Identifier: MIT
#include "toollog.h"

#include "scratch.h"
#include "toolerror.h"
#include "utility_manage.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

namespace
{

constexpr qint64 mostBytes = qint64{1024} * 1024;
constexpr int olderFiles = 1;

QString defaultPath()
{
    QString state = qEnvironmentVariable("XDG_STATE_HOME");
    if (!QDir::isAbsolutePath(state)) { // a relative one is to be ignored
        state = QDir::homePath() + QStringLiteral("/.local/state");
    }
    return state + QStringLiteral("/coremanage/coremanage.log");
}

// Why the file cannot be written; empty if it can. The log itself would answer with its own words.
QString obstacle(const QString& path)
{
    const QFileInfo info(path);
    if (info.isDir()) {
        return QStringLiteral("is a directory");
    }
    if (info.exists() && !info.isFile()) {
        return QStringLiteral("is no plain file");
    }
    if (!QDir().mkpath(info.absolutePath())) {
        return QStringLiteral("its directory cannot be made");
    }
    QFile file(path);
    return file.open(QIODevice::Append) ? QString() : file.errorString();
}

} // namespace

void toollog::choose(const QString& path)
{
    if (!path.isEmpty()) {
        const QString reason = obstacle(path);
        if (!reason.isEmpty() || !Utility_Manage::setLogFile(path, mostBytes, olderFiles)) {
            throw BadInput(QStringLiteral("--log \"%1\": %2: give a file that can be written")
                               .arg(path, reason));
        }
        return;
    }
    const QString own = defaultPath();
    if (!obstacle(own).isEmpty() || !Utility_Manage::setLogFile(own, mostBytes, olderFiles)) {
        chooseTemporary();
    }
}

void toollog::chooseTemporary()
{
    if (!scratch::path().isEmpty()) {
        Utility_Manage::setLogFile(scratch::path() + QStringLiteral("/coremanage.log"), mostBytes,
                                   olderFiles);
    }
}
