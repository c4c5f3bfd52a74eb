// SPDX-License-Identifier: MIT
#pragma once

class Narrator;

/// The demonstration of the on-screen-display endpoints: three simulated ones, of which one goes
/// away and comes back.
namespace osddemo
{

/// Goes through the steps. False if one did not come out as said.
bool run(Narrator& narrator);

} // namespace osddemo
