// SPDX-License-Identifier: MIT
#pragma once

#include "broker.h"

#include <QByteArray>
#include <QMap>
#include <QObject>
#include <QTcpServer>
#include <QTcpSocket>

#include <vector>

/// Stands between one client and a broker, passes everything on as it is, and writes down what
/// was published and acknowledged: what the client did, whatever became of the broker.
///
/// Belongs to one thread, whose event loop must run.
class MqttTap : public QObject
{
    Q_OBJECT

public:
    /// What came of all messages with the same correlation data that went one way.
    struct Passage {
        int sent = 0;         ///< for the first time
        int repeated = 0;     ///< marked as a repetition
        int acknowledged = 0; ///< by the receiver
        QByteArray payload;   ///< of the last one
    };
    using Passages = QMap<QByteArray, Passage>; // by correlation data

    explicit MqttTap(const Broker& broker);

    quint16 port() const { return server.serverPort(); }
    int connections() const { return connectionCount; } ///< so far
    const Passages& commands() const { return fromBroker; }
    const Passages& answers() const { return fromClient; }

private:
    class Direction;
    void accept();

    const Broker& broker;
    QTcpServer server;
    int connectionCount = 0;
    Passages fromBroker;
    Passages fromClient;
};
