// SPDX-License-Identifier: MIT
#include "scratch.h"

#include "toolerror.h"

#include <QFile>
#include <QTemporaryDir>

#include <cstring>

#include <fcntl.h>

namespace
{

// QDir has no path of a directory that is not there.
QString parent()
{
    const QString chosen = qEnvironmentVariable("TMPDIR");
    return chosen.isEmpty() ? QStringLiteral("/tmp") : chosen;
}

struct Directory {
    const QString place = parent(); // TMPDIR may lead elsewhere later
    const QTemporaryDir made{place + QStringLiteral("/coremanage-XXXXXX")};
};

const Directory& directory()
{
    static const Directory instance;
    return instance;
}

// What keeps a file of this size out; empty if nothing does.
QString obstacle(qint64 bytes)
{
    if (!directory().made.isValid()) {
        return directory().made.errorString();
    }
    QFile file(directory().made.filePath(QStringLiteral("room")));
    if (!file.open(QIODevice::WriteOnly)) {
        return file.errorString();
    }
    const int error = posix_fallocate(file.handle(), 0, bytes);
    file.remove();
    return error == 0 ? QString() : QString::fromLocal8Bit(std::strerror(error));
}

} // namespace

QString scratch::path()
{
    return directory().made.isValid() ? directory().made.path() : QString();
}

void scratch::require(qint64 bytes)
{
    const QString reason = obstacle(bytes);
    if (!reason.isEmpty()) {
        throw LinkDown(refusal(QStringLiteral("%1 bytes").arg(bytes), reason));
    }
}

QString scratch::refusal(const QString& whose, const QString& reason)
{
    return QStringLiteral("the temporary directory %1 does not take %2: %3: make room there, or "
                          "set TMPDIR to another directory")
        .arg(directory().place, whose, reason.simplified());
}
