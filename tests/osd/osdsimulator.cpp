// SPDX-License-Identifier: MIT
#include "osdsimulator.h"

#include "osdsimulation.h"

#include <QAbstractEventDispatcher>
#include <QEventLoop>

struct OsdSimulator::Endpoint {
    explicit Endpoint(const OsdSimulatorOptions& options)
        : simulation(QHostAddress(options.address), options.port, settingsOf(options))
    {
        QObject::connect(&simulation, &OsdSimulation::accepted,
                         [this](quint16 peerPort) { peerPorts.push_back(peerPort); });
        QObject::connect(&simulation, &OsdSimulation::received,
                         [this](const QByteArray& bytes) { received += bytes; });
        QObject::connect(&simulation, &Simulation::exchanged, [this](const Exchange& exchange) {
            commands.push_back(exchange.command.block);
            answers += exchange.answer.empty() ? 0 : exchange.times;
        });
    }

    static SimulatedDevice::Settings settingsOf(const OsdSimulatorOptions& options)
    {
        SimulatedDevice::Settings settings;
        settings.faults = options.faults;
        settings.dataLength = options.dataLength;
        return settings;
    }

    OsdSimulation simulation;
    std::vector<quint16> peerPorts;
    QByteArray received;
    std::vector<QByteArray> commands;
    qint64 answers = 0;
};

OsdSimulator::OsdSimulator(const OsdSimulatorOptions& options)
    : thread([this, options] { serve(options); })
{
    std::unique_lock locked(lock);
    changed.wait(locked, [this] { return dispatcher != nullptr; });
}

OsdSimulator::~OsdSimulator()
{
    {
        const std::lock_guard locked(lock);
        ending = true;
        dispatcher->wakeUp();
    }
    thread.join();
}

void OsdSimulator::serve(const OsdSimulatorOptions& options)
{
    QEventLoop loop;
    Endpoint endpoint(options);
    std::unique_lock locked(lock);
    dispatcher = QAbstractEventDispatcher::instance();
    changed.notify_all();
    while (!ending) {
        if (open) {
            open(endpoint);
            open = nullptr;
            changed.notify_all();
        }
        locked.unlock();
        loop.processEvents(QEventLoop::WaitForMoreEvents);
        locked.lock();
    }
}

void OsdSimulator::perform(const std::function<void(Endpoint&)>& task) const
{
    std::unique_lock locked(lock);
    changed.wait(locked, [this] { return !open; });
    bool done = false;
    open = [&task, &done](Endpoint& endpoint) {
        task(endpoint);
        done = true;
    };
    dispatcher->wakeUp();
    changed.wait(locked, [&done] { return done; });
}

template <class Question>
auto OsdSimulator::ask(Question question) const
{
    decltype(question(std::declval<Endpoint&>())) answer{};
    perform([&](Endpoint& endpoint) { answer = question(endpoint); });
    return answer;
}

bool OsdSimulator::start()
{
    return ask([](Endpoint& endpoint) { return endpoint.simulation.open(); });
}

QString OsdSimulator::error() const
{
    return ask([](Endpoint& endpoint) { return endpoint.simulation.error(); });
}

quint16 OsdSimulator::port() const
{
    return ask([](Endpoint& endpoint) { return endpoint.simulation.port(); });
}

void OsdSimulator::setFaults(const Faults& faults)
{
    perform([&faults](Endpoint& endpoint) { endpoint.simulation.setFaults(faults); });
}

void OsdSimulator::setFault(Fault fault, const Faults::Setting& setting)
{
    perform([&](Endpoint& endpoint) { endpoint.simulation.setFault(fault, setting); });
}

void OsdSimulator::hangUp(bool reset)
{
    const Fault how = reset ? Fault::Reset : Fault::HangUp;
    perform([how](Endpoint& endpoint) { endpoint.simulation.hangUp(how); });
}

void OsdSimulator::send(const QByteArray& bytes)
{
    perform([&bytes](Endpoint& endpoint) {
        endpoint.simulation.send(QByteArray(bytes.constData(), bytes.size()));
    });
}

int OsdSimulator::accepted() const
{
    return static_cast<int>(peerPorts().size());
}

qsizetype OsdSimulator::connected() const
{
    return ask([](Endpoint& endpoint) { return endpoint.simulation.connected(); });
}

int OsdSimulator::good() const
{
    return ask([](Endpoint& endpoint) { return static_cast<int>(endpoint.commands.size()); });
}

qint64 OsdSimulator::noise() const
{
    return ask([](Endpoint& endpoint) { return endpoint.simulation.noise(); });
}

qint64 OsdSimulator::answers() const
{
    return ask([](Endpoint& endpoint) { return endpoint.answers; });
}

QByteArray OsdSimulator::received() const
{
    return ask([](Endpoint& endpoint) { return endpoint.received; });
}

qint64 OsdSimulator::receivedBytes() const
{
    return ask([](Endpoint& endpoint) { return qint64{endpoint.received.size()}; });
}

std::vector<QByteArray> OsdSimulator::commands() const
{
    return ask([](Endpoint& endpoint) { return endpoint.commands; });
}

std::vector<quint16> OsdSimulator::peerPorts() const
{
    return ask([](Endpoint& endpoint) { return endpoint.peerPorts; });
}
