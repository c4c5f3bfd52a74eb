// SPDX-License-Identifier: MIT
#pragma once

#include "simulatedlink.h"

#include <QSocketNotifier>

#include <memory>

/// A simulated device on a pseudo-terminal, for either serial line: the host opens the other end as
/// it opens any serial port.
///
/// With a path, a symbolic link of that name leads to the port while this object lives; after a
/// hang-up it leads to a new pseudo-terminal, as when a cable is plugged in again. Without a path
/// the port has the name that the system gives it, and the simulation ends with a hang-up.
class PtySimulator : public SimulatedLink
{
    Q_OBJECT

public:
    /// \a scheme is that of its address; \a path may be empty.
    PtySimulator(const QString& scheme, const QString& path,
                 const SimulatedDevice::Settings& settings);
    ~PtySimulator() override;

    bool open() override;
    QString address() const override;

protected:
    void hangUp(Fault how) override;

private:
    bool openTerminal();
    bool nameIt();
    void closeTerminal();
    void readAll();
    void writePending();
    qint64 write(const QByteArray& bytes);

    QString scheme;
    QString path;
    QString terminal; // the system's name of the host's end
    int master = -1;
    int hostEnd = -1; // held open: the line does not hang up while no host has opened it
    bool named = false;
    QByteArray pending; // not written yet, because the host has not read enough
    std::unique_ptr<QSocketNotifier> readable;
    std::unique_ptr<QSocketNotifier> writable;
};
