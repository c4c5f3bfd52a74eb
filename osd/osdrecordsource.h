// SPDX-License-Identifier: MIT
#pragma once

#include <functional>

class core_Osd_Manage;

/// The shared endpoint manager as the endpoints' worker threads see it. They connect themselves to
/// it and part from it whenever they start and end, which may be while the factory replaces it or
/// its owner destroys it: here the pointer and its use are one step. Any thread.
namespace osdrecordsource
{

/// From now on this is the shared manager; null for none.
void set(core_Osd_Manage* manager);

/// The manager is being destroyed: if it is the shared one, there is none now. To be called first
/// thing in its destructor; waits for uses that are under way, which never block.
void forget(const core_Osd_Manage* manager);

/// Runs the function on the shared manager, which stays alive meanwhile; not at all if there is
/// none. The function must neither block nor use this namespace.
void use(const std::function<void(core_Osd_Manage&)>& function);

} // namespace osdrecordsource
