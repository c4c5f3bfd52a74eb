// SPDX-License-Identifier: MIT
#pragma once

#include "simulateddevice.h"

#include <QObject>
#include <QTimer>

#include <functional>
#include <memory>

/// A simulated device on a real medium. What the media have in common is here: commands are handed
/// to the device, answers are written in their order and after their pauses, and an answer that is
/// delayed does not hold up the next one. A medium opens itself, passes on what arrives, and
/// writes.
///
/// Belongs to one thread, which must run a Qt event loop. Nothing blocks.
class SimulatedLink : public QObject
{
    Q_OBJECT

public:
    explicit SimulatedLink(const SimulatedDevice::Settings& settings);

    /// Starts to serve. False: error() says why.
    virtual bool open() = 0;

    virtual QString address() const = 0; ///< where a host finds it, as a link address
    QString error() const { return problem; }

    /// What a host needs to know besides the address; empty if nothing.
    virtual QString hint() const { return {}; }

    SimulatedDevice& device() { return simulated; }
    qint64 bytesSent() const { return sent; }
    bool isIdle() const { return underWay == 0; } ///< every answer so far has been written

Q_SIGNALS:
    void exchanged(const Exchange& exchange); ///< a command has come, its answer is on its way
    void lost(const QString& reason);         ///< the medium is gone; nothing is served any more

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
