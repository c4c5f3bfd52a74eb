// SPDX-License-Identifier: MIT
#pragma once

#include <functional>

namespace CLI
{
class App;
}

/// The command line as a whole.
namespace commandline
{

/// Parses the command line and runs its subcommand. Returns the exit code; what is wrong has been
/// said then.
int run(int argc, char** argv);

} // namespace commandline

/// The subcommands of coremanage. Each function adds one to the application; what it returns runs
/// it once the command line has been parsed, and gives the exit code or throws ToolError.
namespace commands
{

struct Subcommand {
    CLI::App* parser;
    std::function<int()> run;
};

Subcommand addDemo(CLI::App& application);
Subcommand addSend(CLI::App& application);
Subcommand addListen(CLI::App& application);
Subcommand addSimulate(CLI::App& application);
Subcommand addPorts(CLI::App& application);
Subcommand addDevices(CLI::App& application);
Subcommand addEncode(CLI::App& application);
Subcommand addDecode(CLI::App& application);

} // namespace commands
