// SPDX-License-Identifier: MIT
#pragma once

#include "simulation.h"

#include <QTimer>

#include <functional>
#include <memory>

/// A simulated device on a real medium. A medium opens itself, passes on what arrives, and writes.
/// This class hands commands to the device, and writes its answers after their pauses.
///
/// A delayed answer does not hold up the next one. On osd:// an answer that has begun is written to
/// its end before another one begins.
class SimulatedLink : public Simulation
{
    Q_OBJECT

public:
    /// \a medium replaces that of the settings. Devices that share \a chances share their faults.
    SimulatedLink(Medium medium, const SimulatedDevice::Settings& settings,
                  const std::shared_ptr<Chances>& chances = {});

    void setFault(Fault fault, const Faults::Setting& setting) override;
    qint64 bytesSent() const override { return sent; }
    qint64 noise() const override { return simulated.noise(); }
    bool isIdle() const override { return underWay == 0; }

protected:
    /// Writes one piece; its result is the bytes written or less than 0.
    using Writer = std::function<qint64(const QByteArray&)>;

    /// Passes on what has arrived; the answers go through \a writer.
    void received(const QByteArray& bytes, const Writer& writer);

    /// Breaks the medium by HangUp or Reset. Streams only.
    virtual void hangUp(Fault /*how*/) {}

private:
    struct Delivery;
    using DeliveryPtr = std::shared_ptr<Delivery>;
    void deliver(const std::vector<Exchange>& exchanges);
    void continueDelivery(const DeliveryPtr& delivery);
    void finish(const DeliveryPtr& delivery);

    SimulatedDevice simulated;
    const bool inOrder;
    const std::chrono::milliseconds quietTime;
    QTimer quiet; // since something arrived and a command is still open
    Writer lastWriter;
    DeliveryPtr begun;               // inOrder: the one that is being written
    std::vector<DeliveryPtr> behind; // inOrder: those that wait for it
    qint64 sent = 0;
    int underWay = 0; // deliveries
};
