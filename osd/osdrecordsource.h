// SPDX-License-Identifier: MIT
#pragma once

#include <functional>

class ICoreOsdBase;
class core_Osd_Manage;

/// The shared endpoint manager as the endpoints' worker threads see it. They connect themselves to
/// it and part from it whenever they start and end, which may be while the factory replaces it or
/// its owner destroys it: here the pointer and its use are one step. Any thread.
namespace osdrecordsource
{

/// \a pointer, which must live for ever, is where the shared manager stands. To be called once,
/// before any endpoint starts; always true.
bool share(ICoreOsdBase*& pointer) noexcept;

/// Assigns that pointer.
void set(ICoreOsdBase* manager);

/// The manager exists from now on: to be called by its constructor.
void add(core_Osd_Manage* manager);

/// The manager is being destroyed: to be called first thing in its destructor. Waits for uses that
/// are under way, which never block.
void remove(core_Osd_Manage* manager);

/// Runs the function on the shared manager, which stays alive meanwhile; not at all if the pointer
/// is null or designates none that exists. The function must neither block nor use this namespace.
void use(const std::function<void(core_Osd_Manage&)>& function);

} // namespace osdrecordsource
