// SPDX-License-Identifier: MIT
#pragma once

/// A network of the process's own: every port is free there and nothing reaches the machine.
namespace networknamespace
{

/// Moves the process, which must have one thread yet, into a new network namespace with its
/// loopback interface up. False, with nothing changed, where the system does not allow it.
bool enter();

/// Brings the loopback interface up where it is down, as in a network namespace of a shell that was
/// left as it was made, and this process may. False if it is down then.
bool raiseLoopback();

} // namespace networknamespace
