// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

class Narrator;

/// The demonstration that every device link shares: commands travel to a simulated device and
/// decoded replies come back.
namespace devicedemo
{

/// Puts a simulated device at \a place, opens a link to where it then is, and goes through the
/// steps. False if one did not come out as said.
bool run(Narrator& narrator, const QString& place);

} // namespace devicedemo
