// SPDX-License-Identifier: MIT
#pragma once

#include "simulatedlink.h"

#include <memory>

/// Simulated USB HID devices. Only an executable that is linked for them sees them: coremanage is
/// not, so that it runs where nothing is installed for that, but there is one beside it that is,
/// and the same otherwise.
namespace hidemulation
{

/// To be called first of all. Where the arguments ask for a simulated device, or the environment
/// names some, the process goes on as the other executable, from its start. Returns where they do
/// not, where this is the other one, and where that cannot be had: obstacle says why.
void prepare(char** arguments);

/// Why this process cannot simulate devices; empty if it can.
QString obstacle();

/// A simulated device with these ids, not yet open; only where there is no obstacle.
std::unique_ptr<Simulation> device(quint16 vendorId, quint16 productId,
                                   const SimulatedDevice::Settings& settings);

} // namespace hidemulation
