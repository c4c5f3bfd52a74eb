// SPDX-License-Identifier: MIT
#pragma once

#include "linkregistry.h"

/// osd://ADDRESS:PORT, an on-screen-display endpoint; several of them make one link. A simulated
/// one takes ?data=N, the bytes of data in each command: commands carry no length.
namespace osdtarget
{

/// Throws BadInput if it is no dotted address, or the port is none. The port may be left out.
std::unique_ptr<LinkTarget> parse(const LinkAddress& address);

bool demonstrate(Narrator& narrator);

} // namespace osdtarget
