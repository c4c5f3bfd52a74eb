// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

/// Who has which local UDP port, as the kernel tells it.
namespace udpports
{

/// Whether a socket of this process is bound to the port.
bool isOurs(quint16 port);

/// Whether the port could be bound now, on every address.
bool isFree(quint16 port);

/// "process 123 (name)" of who has bound the port, as far as this user may see it; else "another
/// program".
QString holder(quint16 port);

} // namespace udpports
