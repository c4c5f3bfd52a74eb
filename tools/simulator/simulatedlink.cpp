// SPDX-License-Identifier: MIT
#include "simulatedlink.h"

#include <algorithm>

namespace
{

constexpr std::chrono::milliseconds quietTime{30};
constexpr int writesAtOnce = 64; // then the event loop gets its turn

} // namespace

struct SimulatedLink::Delivery {
    Exchange exchange;
    Writer writer;
    std::size_t next = 0;
    bool paused = false; // the pause before `next` is over
};

SimulatedLink::SimulatedLink(const SimulatedDevice::Settings& settings) : simulated(settings)
{
    quiet.setSingleShot(true);
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
        if (!exchange.answer.empty()) {
            ++underWay;
            continueDelivery(std::make_shared<Delivery>(Delivery{exchange, lastWriter}));
        }
    }
}

void SimulatedLink::continueDelivery(const std::shared_ptr<Delivery>& delivery)
{
    const auto& answer = delivery->exchange.answer;
    for (int writes = 0; delivery->exchange.times > 0; ++writes) {
        const Emission& emission = answer[delivery->next];
        const bool pauses = emission.after.count() > 0 && !delivery->paused;
        if (pauses || writes == writesAtOnce) {
            delivery->paused = pauses;
            QTimer::singleShot(pauses ? emission.after : std::chrono::milliseconds(0),
                               Qt::PreciseTimer, this,
                               [this, delivery] { continueDelivery(delivery); });
            return;
        }
        delivery->paused = false;
        sent += std::max<qint64>(0, delivery->writer(emission.bytes));
        if (++delivery->next == answer.size()) {
            delivery->next = 0;
            --delivery->exchange.times;
        }
    }
    --underWay;
    const auto& faults = delivery->exchange.faults;
    if (std::find(faults.begin(), faults.end(), Fault::HangUp) != faults.end()) {
        hangUp();
    }
}
