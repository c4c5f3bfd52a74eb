// SPDX-License-Identifier: MIT
#include "hidemulation.h"

#include "simulator/hidsimulator.h"

void hidemulation::prepare(char** /*arguments*/) {}

QString hidemulation::obstacle()
{
    return {};
}

std::unique_ptr<Simulation> hidemulation::device(quint16 vendorId, quint16 productId,
                                                 const SimulatedDevice::Settings& settings)
{
    return std::make_unique<HidSimulator>(vendorId, productId, settings);
}
