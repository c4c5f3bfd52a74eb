// SPDX-License-Identifier: MIT
#pragma once

#include "simulation.h"

#include <QHostAddress>
#include <QList>
#include <QTcpServer>

#include <memory>

class SimulatedConnection;

/// A simulated on-screen-display endpoint: a TCP server that answers the command frames of every
/// connection, or misbehaves as told. All connections share one set of faults.
class OsdSimulation : public Simulation
{
    Q_OBJECT

public:
    /// Port 0: the system chooses a free one. The framing of \a settings is not used.
    OsdSimulation(const QHostAddress& address, quint16 port,
                  const SimulatedDevice::Settings& settings);

    bool open() override;
    QString address() const override;
    void setFault(Fault fault, const Faults::Setting& setting) override;
    void setFaults(const Faults& faults); ///< all of them from the next command on
    qint64 bytesSent() const override;
    qint64 noise() const override;
    bool isIdle() const override;

    quint16 port() const { return localPort; }
    qsizetype connected() const { return connections.size(); } ///< connections now

    /// Ends every connection: by HangUp when what is due has been sent, by Reset at once.
    void hangUp(Fault how = Fault::HangUp);

    /// Sends bytes as they are on every connection.
    void send(const QByteArray& bytes);

Q_SIGNALS:
    void accepted(quint16 peerPort);
    void received(const QByteArray& bytes); ///< before they are cut into commands

private:
    friend SimulatedConnection;
    void acceptAll();
    void forget(SimulatedConnection* connection);

    const QHostAddress localAddress;
    quint16 localPort;
    SimulatedDevice::Settings settings;
    const std::shared_ptr<Chances> chances;
    QTcpServer server;
    QList<SimulatedConnection*> connections; // children
    qint64 sentBefore = 0;                   // on connections that are over
    qint64 noiseBefore = 0;
};
