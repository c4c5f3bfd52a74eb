// SPDX-License-Identifier: MIT
#include "broker.h"

#include "eventually.h"

#include <QFile>
#include <QHostAddress>
#include <QTcpServer>

#include <csignal>

namespace
{

void openssl(const QStringList& arguments)
{
    static const QStringList request{
        QStringLiteral("req"),      QStringLiteral("-x509"),
        QStringLiteral("-newkey"),  QStringLiteral("ec"),
        QStringLiteral("-pkeyopt"), QStringLiteral("ec_paramgen_curve:P-256"),
        QStringLiteral("-nodes"),   QStringLiteral("-days"),
        QStringLiteral("2")};
    QProcess process;
    process.setStandardErrorFile(QProcess::nullDevice());
    process.start(QStringLiteral("openssl"), request + arguments);
    process.waitForFinished(-1);
}

// Of this address or, on another machine, of whichever is free here: those of a test are few.
quint16 freePort(const QString& address)
{
    QTcpServer server;
    if (!server.listen(QHostAddress(address))) {
        server.listen(QHostAddress(QHostAddress::LocalHost));
    }
    return server.serverPort();
}

} // namespace

Authority::Authority()
{
    openssl({QStringLiteral("-subj"), QStringLiteral("/CN=authority"), QStringLiteral("-keyout"),
             path(QStringLiteral("authority.key")), QStringLiteral("-out"), certificate()});
}

Authority::Papers Authority::issue(const QString& name) const
{
    Papers papers{path(name + QStringLiteral(".crt")), path(name + QStringLiteral(".key"))};
    const QString kind =
        QHostAddress(name).isNull() ? QStringLiteral("DNS:") : QStringLiteral("IP:");
    openssl({QStringLiteral("-CA"), certificate(), QStringLiteral("-CAkey"),
             path(QStringLiteral("authority.key")), QStringLiteral("-subj"),
             QStringLiteral("/CN=") + name, QStringLiteral("-addext"),
             QStringLiteral("subjectAltName=") + kind + name, QStringLiteral("-addext"),
             QStringLiteral("basicConstraints=critical,CA:FALSE"), QStringLiteral("-keyout"),
             papers.key, QStringLiteral("-out"), papers.certificate});
    return papers;
}

Broker::Broker(const Setup& chosen) : setup(chosen), localPort(freePort(chosen.address))
{
    QByteArray passwords;
    for (auto it = setup.passwords.begin(); it != setup.passwords.end(); ++it) {
        passwords += it.key().toUtf8() + ':' + it.value().toUtf8() + '\n';
    }
    if (!passwords.isEmpty()) {
        write(QStringLiteral("passwords"), passwords);
        QProcess::execute(QStringLiteral("mosquitto_passwd"),
                          {QStringLiteral("-U"), path(QStringLiteral("passwords"))});
    }
    if (!setup.access.isEmpty()) {
        write(QStringLiteral("access"), setup.access);
    }
    write(QStringLiteral("mosquitto.conf"), configuration());
}

void Broker::write(const QString& file, const QByteArray& text) const
{
    QFile written(path(file));
    written.open(QIODevice::WriteOnly);
    written.write(text);
}

QByteArray Broker::configuration() const
{
    const auto file = [](const char* key, const QString& name) {
        return key + (' ' + name.toUtf8()) + '\n';
    };
    QByteArray text = "listener " + QByteArray::number(localPort) + ' ' + setup.address.toUtf8() +
                      "\nset_tcp_nodelay true\nuser root\nlog_dest stderr\nlog_type all\n";
    if (setup.authority != nullptr) {
        const Authority::Papers own = setup.authority->issue(setup.address);
        text += file("cafile", setup.authority->certificate()) + file("certfile", own.certificate) +
                file("keyfile", own.key) + "require_certificate true\n";
    }
    if (setup.passwords.isEmpty()) {
        text += "allow_anonymous true\n";
    } else {
        text += file("password_file", path(QStringLiteral("passwords")));
    }
    if (!setup.access.isEmpty()) {
        text += file("acl_file", path(QStringLiteral("access")));
    }
    if (setup.keeps) {
        text += "persistence true\nautosave_on_changes true\nautosave_interval 1\n" +
                file("persistence_location", directory.path() + '/');
    }
    return text + setup.more;
}

bool Broker::start()
{
    process.setStandardErrorFile(path(QStringLiteral("log")));
    const QStringList command =
        QStringList{QStringLiteral("setpriv"), QStringLiteral("--pdeathsig"),
                    QStringLiteral("KILL")} +
        setup.command +
        QStringList{QStringLiteral("/usr/sbin/mosquitto"), QStringLiteral("-c"),
                    path(QStringLiteral("mosquitto.conf"))};
    process.start(command.first(), command.mid(1));
    return eventually([this] {
               return process.state() == QProcess::NotRunning ||
                      log().contains(QStringLiteral(" running\n"));
           }) &&
           process.state() != QProcess::NotRunning; // its start may not have been noticed yet
}

void Broker::kill()
{
    end(SIGKILL);
}

void Broker::stop()
{
    end(SIGTERM);
}

void Broker::end(int signal)
{
    if (process.state() != QProcess::NotRunning) {
        ::kill(static_cast<pid_t>(process.processId()), signal);
        process.waitForFinished();
    }
}

QString Broker::log() const
{
    QFile file(path(QStringLiteral("log")));
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}
