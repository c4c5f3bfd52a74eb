// SPDX-License-Identifier: MIT
#pragma once

/// The command line as a whole.
namespace commandline
{

/// Parses the command line and runs its subcommand. Returns the exit code; what is wrong has been
/// said then.
int run(int argc, char** argv);

} // namespace commandline
