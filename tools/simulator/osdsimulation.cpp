// SPDX-License-Identifier: MIT
#include "osdsimulation.h"

OsdSimulation::OsdSimulation(const OsdSimulatorOptions& options)
    : ip(options.address), endpoint(told(options))
{
}

OsdSimulatorOptions OsdSimulation::told(OsdSimulatorOptions options)
{
    options.onExchange = [this](const Exchange& exchange) {
        QMetaObject::invokeMethod(
            this, [this, exchange] { Q_EMIT exchanged(exchange); }, Qt::QueuedConnection);
    };
    return options;
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
