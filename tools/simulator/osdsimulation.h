// SPDX-License-Identifier: MIT
#pragma once

#include "osdsimulator.h"
#include "simulation.h"

#include <deque>
#include <mutex>

/// A simulated on-screen-display endpoint that tells its exchanges in the thread it belongs to. A
/// command's frame is the block of its exchange.
class OsdSimulation : public Simulation
{
    Q_OBJECT

public:
    explicit OsdSimulation(const OsdSimulatorOptions& options);

    bool open() override;
    QString address() const override;
    QString error() const override { return endpoint.error(); }
    void setFault(Fault fault, const Faults::Setting& setting) override;
    qint64 bytesSent() const override { return endpoint.sentBytes(); }
    qint64 noise() const override { return endpoint.badBytes(); }
    bool isIdle() const override { return endpoint.isIdle(); }

    int connected() const { return endpoint.connected(); } ///< connections now
    void hangUp() { endpoint.hangUp(false); }              ///< on everyone

private:
    Q_SLOT void tell();

    OsdSimulatorOptions told(OsdSimulatorOptions options);

    QString ip;
    std::mutex lock; // a leaf: untold
    std::deque<Exchange> untold;
    OsdSimulator endpoint; // the last one: its thread tells this object
};
