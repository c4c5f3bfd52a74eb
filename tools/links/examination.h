// SPDX-License-Identifier: MIT
#pragma once

#include "linkplace.h"

#include <vector>

/// One thing that was looked at.
struct Finding {
    enum class State { Fine, Note, Wrong };

    State state;
    QString what; ///< as it is
    QString mend; ///< what to do about it; may have lines
};

/// What this machine shows of a link before anything is sent: rights, who has it, the way there.
namespace examination
{

/// Looks at one device's place. Opens and sends nothing.
std::vector<Finding> of(const LinkPlace& place);

} // namespace examination
