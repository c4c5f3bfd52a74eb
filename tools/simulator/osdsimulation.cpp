// SPDX-License-Identifier: MIT
#include "osdsimulation.h"

#include "simulatedlink.h"

#include <QTcpSocket>

#include <algorithm>
#include <numeric>

#include <sys/socket.h>

/// One connection of a simulated endpoint.
class SimulatedConnection : public SimulatedLink
{
public:
    SimulatedConnection(OsdSimulation& simulation, QTcpSocket* accepted)
        : SimulatedLink(Medium::Stream, simulation.settings, simulation.chances),
          endpoint(simulation), faults(simulation.chances->faults), socket(accepted)
    {
        setParent(&endpoint);
        socket->setParent(this);
        socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
        if (faults.strikes(Fault::CloseAfter, simulation.chances->random)) {
            closeAfter = faults.amount(Fault::CloseAfter);
        }
        connect(this, &Simulation::exchanged, &endpoint, &Simulation::exchanged);
        connect(socket, &QTcpSocket::readyRead, this, &SimulatedConnection::readAll);
        connect(socket, &QTcpSocket::bytesWritten, this, [this](qint64 size) { sent += size; });
        connect(socket, &QTcpSocket::disconnected, this, [this] { endpoint.forget(this); });
    }

    bool open() override
    {
        const bool reads = !faults.lasts(Fault::NeverRead);
        socket->setReadBufferSize(reads ? 0 : 1); // 0: no limit
        readAll();
        return true;
    }

    QString address() const override { return socket->peerAddress().toString(); }
    qint64 bytesSent() const override { return sent; }
    bool isIdle() const override { return SimulatedLink::isIdle() && socket->bytesToWrite() == 0; }

    void hangUp(Fault how) override
    {
        if (how == Fault::Reset) {
            const linger atOnce{1, 0};
            setsockopt(static_cast<int>(socket->socketDescriptor()), SOL_SOCKET, SO_LINGER, &atOnce,
                       sizeof atOnce);
            socket->abort();
        } else {
            socket->disconnectFromHost();
        }
    }

    qint64 write(const QByteArray& bytes)
    {
        return socket->state() == QTcpSocket::ConnectedState ? socket->write(bytes) : -1;
    }

private:
    void readAll()
    {
        if (faults.lasts(Fault::NeverRead) || socket->bytesAvailable() == 0) {
            return;
        }
        const QByteArray bytes = socket->readAll();
        receivedBytes += bytes.size();
        Q_EMIT endpoint.received(bytes);
        received(bytes, [this](const QByteArray& answer) { return write(answer); });
        if (closeAfter > 0 && receivedBytes >= closeAfter) {
            hangUp(Fault::HangUp);
        }
    }

    OsdSimulation& endpoint;
    Faults& faults;
    QTcpSocket* socket;
    int closeAfter = 0; // bytes; 0: never
    qint64 receivedBytes = 0;
    qint64 sent = 0;
};

OsdSimulation::OsdSimulation(const QHostAddress& address, quint16 port,
                             const SimulatedDevice::Settings& chosen)
    : localAddress(address), localPort(port), settings(chosen),
      chances(std::make_shared<Chances>(Chances{chosen.faults, SeededRandom(chosen.seed)}))
{
    settings.framing = devicecodec::Framing::Osd;
    connect(&server, &QTcpServer::newConnection, this, &OsdSimulation::acceptAll);
}

bool OsdSimulation::open()
{
    // Only a port that was bound by its number stays taken while nothing listens on it.
    if (localPort == 0 && server.listen(localAddress, localPort)) {
        localPort = server.serverPort();
        server.close();
    }
    if (!server.listen(localAddress, localPort)) {
        failToBind(server.serverError(), localPort, server.errorString());
        return false;
    }
    setFaults(chances->faults);
    return true;
}

void OsdSimulation::setFault(Fault fault, const Faults::Setting& setting)
{
    Faults changed = chances->faults;
    changed.set(fault, setting);
    setFaults(changed);
}

// A socket that is bound but does not listen keeps the port and has the system refuse connections.
void OsdSimulation::setFaults(const Faults& faults)
{
    constexpr int backlog = 128;
    const int descriptor = static_cast<int>(server.socketDescriptor());
    chances->faults = faults;
    if (faults.lasts(Fault::Refuse)) {
        server.pauseAccepting();
        shutdown(descriptor, SHUT_RD);
    } else {
        listen(descriptor, backlog);
        server.resumeAccepting();
    }
    const auto all = connections; // one that hangs up leaves the list
    for (SimulatedConnection* const connection : all) {
        connection->open();
    }
}

void OsdSimulation::acceptAll()
{
    while (QTcpSocket* const socket = server.nextPendingConnection()) {
        Q_EMIT accepted(socket->peerPort());
        connections.push_back(new SimulatedConnection(*this, socket));
        connections.back()->open();
    }
}

void OsdSimulation::forget(SimulatedConnection* connection)
{
    sentBefore += connection->bytesSent();
    noiseBefore += connection->noise();
    connections.removeOne(connection);
    connection->deleteLater(); // it may be at work
}

QString OsdSimulation::address() const
{
    return QStringLiteral("osd://%1:%2").arg(localAddress.toString()).arg(localPort);
}

qint64 OsdSimulation::bytesSent() const
{
    return std::accumulate(connections.begin(), connections.end(), sentBefore,
                           [](qint64 sum, const auto* one) { return sum + one->bytesSent(); });
}

qint64 OsdSimulation::noise() const
{
    return std::accumulate(connections.begin(), connections.end(), noiseBefore,
                           [](qint64 sum, const auto* one) { return sum + one->noise(); });
}

bool OsdSimulation::isIdle() const
{
    return std::all_of(connections.begin(), connections.end(),
                       [](const auto* one) { return one->isIdle(); });
}

void OsdSimulation::hangUp(Fault how)
{
    const auto all = connections; // one that hangs up leaves the list
    for (SimulatedConnection* const connection : all) {
        connection->hangUp(how);
    }
}

void OsdSimulation::send(const QByteArray& bytes)
{
    for (SimulatedConnection* const connection : qAsConst(connections)) {
        connection->write(bytes);
    }
}
