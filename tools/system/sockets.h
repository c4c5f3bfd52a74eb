// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

/// UDP ports of this machine, as the kernel shows them. Any thread; nothing blocks.
namespace sockets
{

/// Whether the UDP port could be bound now, on every address.
bool isFree(quint16 port);

/// "process 123 (name)" of who has bound the UDP port, as far as this user may see it; else
/// "another program".
QString holder(quint16 port);

} // namespace sockets
