// SPDX-License-Identifier: MIT
#pragma once

#include "linkregistry.h"

/// udp://ADDRESS:PORT, a device on the network.
///
/// Replies come to one local port, which is fixed and which only one program can have at a time:
/// the library stays silent if it is taken, so the tool looks.
namespace udptarget
{

/// Throws BadInput if it is no dotted address, or the port is none. The port may be left out.
std::unique_ptr<LinkTarget> parse(const LinkAddress& address);

bool demonstrate(Narrator& narrator);

/// The local port that replies come to, for the host-wide device type.
quint16 localPort();

} // namespace udptarget
