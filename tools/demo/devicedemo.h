// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

class Narrator;

/// The demonstration that every device link shares: commands travel to a simulated device and
/// decoded replies come back.
namespace devicedemo
{

/// Puts a simulated device at \a place, opens a link to where it then is, and goes through the
/// steps, the last of which is \a burst commands as fast as they go. False if one did not come out
/// as said. Throws LinkDown if the device cannot be there.
bool run(Narrator& narrator, const QString& place, int burst = 200);

} // namespace devicedemo
