// SPDX-License-Identifier: MIT
#pragma once

#include "simulatedlink.h"

#include <QHostAddress>
#include <QUdpSocket>

/// A simulated device behind a UDP socket. Each answer goes to where its command came from.
class UdpSimulator : public SimulatedLink
{
    Q_OBJECT

public:
    /// Port 0: the system chooses a free one.
    UdpSimulator(const QHostAddress& address, quint16 port,
                 const SimulatedDevice::Settings& settings);

    bool open() override;
    QString address() const override;

private:
    void readAll();

    QUdpSocket socket;
    QHostAddress localAddress;
    quint16 localPort;
};
