// SPDX-License-Identifier: MIT
#include "osdsimulation.h"

OsdSimulation::OsdSimulation(const OsdSimulatorOptions& options)
    : ip(options.address), endpoint(told(options))
{
}

OsdSimulatorOptions OsdSimulation::told(OsdSimulatorOptions options)
{
    options.onExchange = [this](const Exchange& exchange) {
        {
            const std::lock_guard guard(lock);
            untold.push_back(exchange);
        }
        QMetaObject::invokeMethod(this, "tell", Qt::QueuedConnection);
    };
    return options;
}

void OsdSimulation::tell()
{
    std::deque<Exchange> exchanges;
    {
        const std::lock_guard guard(lock);
        exchanges.swap(untold);
    }
    for (const Exchange& exchange : exchanges) {
        Q_EMIT exchanged(exchange);
    }
}

bool OsdSimulation::open()
{
    return endpoint.start();
}

QString OsdSimulation::address() const
{
    return QStringLiteral("osd://%1:%2").arg(ip).arg(endpoint.port());
}

void OsdSimulation::setFault(Fault fault, const Faults::Setting& setting)
{
    endpoint.setFault(fault, setting);
}
