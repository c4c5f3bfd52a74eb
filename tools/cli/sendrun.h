// SPDX-License-Identifier: MIT
#pragma once

#include "conversation.h"
#include "options.h"

/// Many commands in one run of send: the same one again and again, or those of a list.
namespace sendrun
{

struct Settings {
    std::vector<Command> commands; ///< not empty
    bool repeats = false;          ///< they begin anew after their end, until the duration is over
    Duration duration;             ///< commands in all, and seconds
    LineTime time;                 ///< that each line begins with
    double intervalMs = 0; ///< between commands, on average; 0: each when the one before is done
    bool json = false;
    bool quiet = false; ///< only the summary
};

/// Sends them, each when the one before is answered or given up. Prints a line for each and, at the
/// end or when the person interrupts, a summary. Throws ToolError, with the summary for a program,
/// if one was not answered or the link was lost.
void run(DeviceLink& open, const Conversation::Terms& terms, const Settings& settings,
         const Interrupt& interrupt);

} // namespace sendrun
