// SPDX-License-Identifier: MIT
#pragma once

#include "simulation.h"

#include <QTimer>

#include <functional>
#include <memory>

/// A simulated device on a real medium. What the media have in common is here: commands are handed
/// to the device, answers are written in their order and after their pauses, and an answer that is
/// delayed does not hold up the next one. A medium opens itself, passes on what arrives, and
/// writes.
class SimulatedLink : public Simulation
{
    Q_OBJECT

public:
    explicit SimulatedLink(const SimulatedDevice::Settings& settings);

    QString error() const override { return problem; }
    void setFault(Fault fault, const Faults::Setting& setting) override;
    qint64 bytesSent() const override { return sent; }
    qint64 noise() const override { return simulated.noise(); }
    bool isIdle() const override { return underWay == 0; }

protected:
    /// Writes one piece; its result is the bytes written or less than 0.
    using Writer = std::function<qint64(const QByteArray&)>;

    /// Passes on what has arrived; the answers go through \a writer.
    void received(const QByteArray& bytes, const Writer& writer);

    void fail(const QString& reason) { problem = reason; }

    /// The medium breaks, as a cable that is pulled. Streams only.
    virtual void hangUp() {}

private:
    struct Delivery;
    void deliver(const std::vector<Exchange>& exchanges);
    void continueDelivery(const std::shared_ptr<Delivery>& delivery);

    SimulatedDevice simulated;
    QTimer quiet; // since something arrived and a command is still open
    Writer lastWriter;
    QString problem;
    qint64 sent = 0;
    int underWay = 0; // deliveries
};
