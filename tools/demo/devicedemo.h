// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

#include <chrono>

class Narrator;

/// The demonstration that every device link shares: commands travel to a simulated device and
/// decoded replies come back.
namespace devicedemo
{

/// How many commands the link takes as fast as they go, and how long their replies may take.
struct Pace {
    int burst = 200;
    std::chrono::milliseconds limit{2000};
};

/// Puts a simulated device at \a place, opens a link to where it then is, and goes through the
/// steps. False if one did not come out as said.
bool run(Narrator& narrator, const QString& place, Pace pace = Pace());

} // namespace devicedemo
