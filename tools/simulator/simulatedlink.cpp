// SPDX-License-Identifier: MIT
#include "simulatedlink.h"

#include <algorithm>
#include <utility>

namespace
{

using devicecodec::Framing;

constexpr int writesAtOnce = 64; // then the event loop gets its turn

SimulatedDevice::Settings on(Medium medium, SimulatedDevice::Settings settings)
{
    settings.medium = medium;
    return settings;
}

} // namespace

struct SimulatedLink::Delivery {
    Exchange exchange;
    Writer writer;
    std::size_t next = 0;
    bool paused = false; // the pause before `next` is over
};

void Simulation::failToBind(QAbstractSocket::SocketError error, quint16 port,
                            const QString& otherwise)
{
    switch (error) {
    case QAbstractSocket::AddressInUseError:
        return fail(
            QStringLiteral("port %1 is taken: give another one, or 0 for a free one").arg(port));
    case QAbstractSocket::SocketAccessError:
        return fail(
            QStringLiteral("port %1 is for root: give one from 1024 on, or 0 for a free one")
                .arg(port));
    case QAbstractSocket::SocketAddressNotAvailableError:
        return fail(QStringLiteral("this machine does not have that address: give one of its own, "
                                   "or 127.0.0.1"));
    default:
        return fail(otherwise);
    }
}

SimulatedLink::SimulatedLink(Medium medium, const SimulatedDevice::Settings& settings,
                             const std::shared_ptr<Chances>& chances)
    : simulated(on(medium, settings), chances), inOrder(settings.framing == Framing::Osd),
      quietTime(settings.framing == Framing::Osd ? 5 : 30)
{
    quiet.setSingleShot(true);
    quiet.setTimerType(Qt::PreciseTimer);
    connect(&quiet, &QTimer::timeout, this, [this] { deliver(simulated.settle()); });
}

void SimulatedLink::setFault(Fault fault, const Faults::Setting& setting)
{
    simulated.faults().set(fault, setting);
}

void SimulatedLink::received(const QByteArray& bytes, const Writer& writer)
{
    lastWriter = writer;
    deliver(simulated.receive(bytes));
    if (simulated.isWaiting()) {
        quiet.start(quietTime);
    } else {
        quiet.stop();
    }
}

void SimulatedLink::deliver(const std::vector<Exchange>& exchanges)
{
    for (const Exchange& exchange : exchanges) {
        Q_EMIT exchanged(exchange);
        ++underWay;
        continueDelivery(std::make_shared<Delivery>(Delivery{exchange, lastWriter}));
    }
}

void SimulatedLink::continueDelivery(const DeliveryPtr& delivery)
{
    const auto& answer = delivery->exchange.answer;
    for (int writes = 0; !answer.empty() && delivery->exchange.times > 0; ++writes) {
        const Emission& emission = answer[delivery->next];
        const bool pauses = emission.after.count() > 0 && !delivery->paused;
        if (pauses || writes == writesAtOnce) {
            delivery->paused = pauses;
            QTimer::singleShot(pauses ? emission.after : std::chrono::milliseconds(0),
                               Qt::PreciseTimer, this,
                               [this, delivery] { continueDelivery(delivery); });
            return;
        }
        if (inOrder && begun && begun != delivery) {
            behind.push_back(delivery);
            return;
        }
        begun = delivery;
        delivery->paused = false;
        sent += std::max<qint64>(0, delivery->writer(emission.bytes));
        if (++delivery->next == answer.size()) {
            delivery->next = 0;
            --delivery->exchange.times;
        }
    }
    finish(delivery);
}

void SimulatedLink::finish(const DeliveryPtr& delivery)
{
    --underWay;
    for (const Fault fault : delivery->exchange.faults) {
        if (fault == Fault::HangUp || fault == Fault::Reset) {
            hangUp(fault);
        }
    }
    if (begun == delivery) {
        begun.reset();
        for (const DeliveryPtr& next : std::exchange(behind, {})) {
            continueDelivery(next);
        }
    }
}
