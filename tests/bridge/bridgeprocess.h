// SPDX-License-Identifier: MIT
#pragma once

#include "broker.h"
#include "tests/tools/toolprocess.h"

#include <QDir>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <csignal>
#include <utility>

/// What a bridge connects: the client "bridge" of a broker, topics below "site", and links.
inline QJsonObject bridgeConfiguration(const Broker& broker, const QJsonArray& links)
{
    const QJsonObject access{
        {"host", broker.address()}, {"port", broker.port()}, {"client_id", "bridge"}};
    return {{"broker", access}, {"prefix", "site"}, {"links", links}};
}

/// The same with more said about the broker.
inline QJsonObject withBroker(QJsonObject configuration, const QJsonObject& more)
{
    QJsonObject broker = configuration.value("broker").toObject();
    for (auto it = more.begin(); it != more.end(); ++it) {
        broker.insert(it.key(), it.value());
    }
    configuration.insert("broker", broker);
    return configuration;
}

/// A link that lets every command through.
inline QJsonObject openLink(const QString& name, const QString& address)
{
    return {{"name", name}, {"address", address}, {"allow", "all"}};
}

/// The built bridge, a process of its own, with a configuration of its own.
class BridgeProcess
{
public:
    explicit BridgeProcess(const QJsonObject& configuration)
        : process({write(configuration)}, {}, {QStringLiteral(COREMANAGE_BRIDGE)})
    {
    }

    ToolProcess& tool() { return process; }
    long id() const { return static_cast<long>(process.id()); }

    /// Ends it as the system does. Its exit code.
    int terminate()
    {
        ::kill(static_cast<pid_t>(process.id()), SIGTERM);
        return process.exitCode();
    }

private:
    QString write(const QJsonObject& configuration) const
    {
        QFile file(directory.filePath("bridge.json"));
        file.open(QIODevice::WriteOnly);
        file.write(QJsonDocument(configuration).toJson());
        return file.fileName();
    }

    const QTemporaryDir directory;
    ToolProcess process;
};
