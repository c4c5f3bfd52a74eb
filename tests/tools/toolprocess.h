// SPDX-License-Identifier: MIT
#pragma once

#include <QJsonObject>
#include <QProcess>
#include <QStringList>
#include <QTemporaryDir>

/// The path of the built tool.
QString builtTool();

/// What starts the tool without root's privilege to open every file; for anyone else, by itself.
QStringList toolWithoutPrivilege();

/// A line for sh -c: runs its arguments, tells their exit code, and reads one line of the output.
QString readByHead();

/// What starts the tool with this temporary directory.
QStringList withTemporary(const QString& directory);

/// The same on a file system of its own, which is mounted there with these options (man tmpfs) and
/// goes with the tool; what the tool leaves there is listed on standard output. Empty where this
/// system does not allow that.
QStringList withTemporary(const QString& directory, const QString& options);

/// Arguments as they are typed, none with a blank in it.
QStringList words(const QString& text);

/// The built tool as a person runs it: a process of its own, with a home directory of its own.
class ToolProcess
{
public:
    /// \a command starts it, if not by itself: another copy of it, or a program around it.
    explicit ToolProcess(const QStringList& arguments, const QByteArray& input = {},
                         const QStringList& command = {builtTool()});
    ~ToolProcess();
    ToolProcess(const ToolProcess&) = delete;
    ToolProcess& operator=(const ToolProcess&) = delete;

    /// Waits until it has ended and returns its exit code; -1 if it crashed or never ends.
    int exitCode();

    /// Waits until its standard output or error contains the text; false if it never does.
    bool says(const QString& text);

    qint64 id() const { return process.processId(); }
    bool hasEnded() const { return process.state() == QProcess::NotRunning; }
    void interrupt();          ///< presses Ctrl-C
    void stop();               ///< it does nothing
    void goOn();               ///< until then
    void closeTerminal();      ///< as the system tells it, which nohup would keep from it
    QByteArray output() const; ///< standard output so far
    QString error() const;     ///< standard error so far
    QStringList lines() const; ///< the output's lines
    QJsonObject json() const;  ///< the output's first line, parsed
    QString home() const { return homeDirectory.path(); }

private:
    void tell(int signal);
    void collect();

    QTemporaryDir homeDirectory;
    QProcess process;
    QByteArray outputSoFar;
    QByteArray errorSoFar;
};

/// Runs it to its end.
struct ToolRun {
    explicit ToolRun(const QStringList& arguments, const QByteArray& input = {},
                     const QStringList& command = {builtTool()});

    int code;
    QByteArray output;
    QString error;
    QJsonObject json;
};

/// Datagrams that this network namespace has sent so far.
qint64 datagramsSent();

/// Bytes that wait for whoever reads a UDP port of this network namespace.
qint64 waitingBytes(quint16 port);
