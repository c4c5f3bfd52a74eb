// SPDX-License-Identifier: MIT
#pragma once

#include "linkregistry.h"

/// serial://PORT?baud=115200&data=8&parity=none&stop=1&flow=none, a device on a serial port, and
/// vela:// alike, a device of the second serial line.
namespace serialtarget
{

/// Throws BadInput if a setting is none. A simulated device may have no port named: it gets one.
std::unique_ptr<LinkTarget> parse(const LinkAddress& address);
std::unique_ptr<LinkTarget> parseVela(const LinkAddress& address);

bool demonstrate(Narrator& narrator);
bool demonstrateVela(Narrator& narrator);

/// Why this user cannot open a device file, with what would help; empty if he can.
QString obstacle(const QString& devicePath);

} // namespace serialtarget
