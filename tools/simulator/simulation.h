// SPDX-License-Identifier: MIT
#pragma once

#include "simulateddevice.h"

#include <QAbstractSocket>
#include <QObject>

/// A simulated device that serves from open until it is destroyed.
///
/// Belongs to one thread, which must run a Qt event loop. Nothing blocks.
class Simulation : public QObject
{
    Q_OBJECT

public:
    /// Starts to serve. False: error() says why.
    virtual bool open() = 0;

    virtual QString address() const = 0; ///< where a host finds it, as a link address
    QString error() const { return problem; }

    /// What a host needs to know besides the address; empty if nothing.
    virtual QString hint() const { return {}; }

    /// Changes one fault from the next command on.
    virtual void setFault(Fault fault, const Faults::Setting& setting) = 0;

    virtual qint64 bytesSent() const = 0;
    virtual qint64 noise() const = 0; ///< bytes that were no command
    virtual bool isIdle() const = 0;  ///< every answer so far has been written

Q_SIGNALS:
    void exchanged(const Exchange& exchange); ///< a command has come, its answer is on its way
    void lost(const QString& reason);         ///< the medium is gone; nothing is served any more

protected:
    void fail(const QString& reason) { problem = reason; }

    /// Fails with what helps against a failed bind, or with \a otherwise for an unknown cause.
    void failToBind(QAbstractSocket::SocketError error, quint16 port, const QString& otherwise);

private:
    QString problem;
};
