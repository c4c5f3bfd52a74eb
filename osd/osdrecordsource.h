// SPDX-License-Identifier: MIT
#pragma once

#include <functional>

class ICoreOsdBase;
class core_Osd_Manage;

/// The endpoint managers as the endpoints' worker threads see them. They connect themselves to the
/// shared one and part from it whenever they start and end, which may be while the factory replaces
/// it or its owner destroys it: here the look whether it lives and its use are one step. Any
/// thread.
namespace osdrecordsource
{

/// \a pointer, which must live for ever, is where the shared manager stands. To be called once,
/// before any endpoint starts; always true.
bool share(ICoreOsdBase*& pointer) noexcept;

/// Assigns that pointer.
void set(ICoreOsdBase* manager);

/// What that pointer holds now; perhaps a manager that is gone.
const ICoreOsdBase* shared();

/// The manager exists from now on: to be called by its constructor.
void add(core_Osd_Manage* manager);

/// The manager is being destroyed: to be called first thing in its destructor. Waits for uses that
/// are under way, which never block.
void remove(core_Osd_Manage* manager);

/// Runs the function on the manager, which stays alive meanwhile; not at all if it is null or gone.
/// The function must neither block nor use this namespace.
void use(const ICoreOsdBase* manager, const std::function<void(core_Osd_Manage&)>& function);

} // namespace osdrecordsource
