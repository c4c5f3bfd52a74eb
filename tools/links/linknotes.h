// SPDX-License-Identifier: MIT
#pragma once

#include "datagramnotes.h"

#include <vector>

/// What the library says only in its debug lines: that a frame did not go out, that something came
/// which was no reply. Any thread.
namespace linknotes
{

/// Starts to listen to the debug lines. With \a verbose they all go to standard error, too.
void install(bool verbose);

/// Whether a frame was refused by the system since the last call.
bool takeSendFailure();

struct Refusals {
    std::vector<Refusal> kept; ///< oldest first, 10,000 at most
    qint64 more = 0;           ///< that came after these
};

/// What came and was refused since the last call.
Refusals takeRefusals();

} // namespace linknotes
