// SPDX-License-Identifier: MIT
#include "toolprocess.h"

#include "eventually.h"

#include <QFile>
#include <QJsonDocument>
#include <QProcessEnvironment>

#include <csignal>

#include <unistd.h>

QString builtTool()
{
    return QStringLiteral(COREMANAGE);
}

QStringList toolWithoutPrivilege()
{
    if (geteuid() != 0) {
        return {builtTool()};
    }
    return {QStringLiteral("setpriv"), QStringLiteral("--bounding-set=-dac_override"), builtTool()};
}

QString readByHead()
{
    return QStringLiteral("{ \"$0\" \"$@\"; echo \"code $?\" >&2; } | head -n 1");
}

QStringList withTemporary(const QString& directory)
{
    return {QStringLiteral("env"), QStringLiteral("TMPDIR=") + directory, builtTool()};
}

QStringList withTemporary(const QString& directory, const QString& options)
{
    const QStringList mounted{
        QStringLiteral("unshare"),
        QStringLiteral("-rm"),
        QStringLiteral("sh"),
        QStringLiteral("-c"),
        QStringLiteral("mount -t tmpfs -o \"$0\" none \"$TMPDIR\" && { \"$@\"; code=$?; "
                       "ls -A \"$TMPDIR\"; exit $code; }"),
        options};
    const QStringList where = withTemporary(directory).mid(0, 2) + mounted;
    const bool isAllowed =
        QProcess::execute(where.first(), where.mid(1) + QStringList(QStringLiteral("true"))) == 0;
    return isAllowed ? where + QStringList(builtTool()) : QStringList();
}

QStringList words(const QString& text)
{
    return text.split(QLatin1Char(' '), Qt::SkipEmptyParts);
}

ToolProcess::ToolProcess(const QStringList& arguments, const QByteArray& input,
                         const QStringList& command)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("HOME"), homeDirectory.path());
    environment.remove(QStringLiteral("XDG_STATE_HOME"));
    process.setProcessEnvironment(environment);
    std::signal(SIGHUP, SIG_DFL); // the tool inherits it, from whoever started the tests
    process.setWorkingDirectory(homeDirectory.path());
    process.start(command.first(), command.mid(1) + arguments);
    process.waitForStarted();
    process.write(input);
    process.closeWriteChannel();
}

ToolProcess::~ToolProcess()
{
    if (process.state() != QProcess::NotRunning) {
        process.kill();
        process.waitForFinished();
    }
}

void ToolProcess::tell(int signal)
{
    if (!hasEnded()) { // it has no number any more then, and 0 is the test itself and its like
        ::kill(static_cast<pid_t>(id()), signal);
    }
}

void ToolProcess::collect()
{
    outputSoFar += process.readAllStandardOutput();
    errorSoFar += process.readAllStandardError();
}

int ToolProcess::exitCode()
{
    const bool ended = eventually([this] { return hasEnded(); }, std::chrono::minutes(5));
    collect();
    return ended && process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
}

bool ToolProcess::says(const QString& text)
{
    return eventually([&] {
        collect();
        return QString::fromUtf8(outputSoFar + errorSoFar).contains(text);
    });
}

void ToolProcess::interrupt()
{
    tell(SIGINT);
}

void ToolProcess::stop()
{
    tell(SIGSTOP);
}

void ToolProcess::goOn()
{
    tell(SIGCONT);
}

void ToolProcess::closeTerminal()
{
    tell(SIGHUP);
}

QByteArray ToolProcess::output() const
{
    return outputSoFar;
}

QString ToolProcess::error() const
{
    return QString::fromUtf8(errorSoFar);
}

QStringList ToolProcess::lines() const
{
    return QString::fromUtf8(outputSoFar).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

QJsonObject ToolProcess::json() const
{
    return QJsonDocument::fromJson(outputSoFar.left(outputSoFar.indexOf('\n'))).object();
}

ToolRun::ToolRun(const QStringList& arguments, const QByteArray& input, const QStringList& command)
{
    ToolProcess process(arguments, input, command);
    code = process.exitCode();
    output = process.output();
    error = process.error();
    json = process.json();
}

qint64 datagramsSent()
{
    constexpr int outDatagrams = 4;
    QFile file(QStringLiteral("/proc/net/snmp"));
    file.open(QIODevice::ReadOnly);
    qint64 sent = -1;
    for (const QByteArray& line : file.readAll().split('\n')) {
        if (line.startsWith("Udp: ")) { // the names, then the numbers
            sent = line.split(' ').at(outDatagrams).toLongLong();
        }
    }
    return sent;
}

qint64 waitingBytes(quint16 port)
{
    qint64 waiting = 0;
    for (const char* table : {"/proc/net/udp", "/proc/net/udp6"}) {
        QFile file(QString::fromLatin1(table));
        file.open(QIODevice::ReadOnly);
        for (const QByteArray& line : file.readAll().split('\n')) {
            const QList<QByteArray> words = line.simplified().split(' ');
            if (words.size() > 4 &&
                words.at(1).endsWith(':' + QByteArray::number(port, 16).toUpper())) {
                waiting += words.at(4).split(':').back().toLongLong(nullptr, 16);
            }
        }
    }
    return waiting;
}
