// SPDX-License-Identifier: MIT
#pragma once

namespace CLI
{
class App;
}

/// The command line as a whole.
namespace commandline
{

/// Gives the application its options and subcommands. The one that is named on a parsed command
/// line sets \a code, which must outlive the parsing.
void build(CLI::App& application, int& code);

/// Parses the command line and runs its subcommand. Returns the exit code; what is wrong has been
/// said then.
int run(int argc, char** argv);

} // namespace commandline

/// The subcommands of coremanage. Each function adds one to the application. Once the command line
/// has been parsed, the one that it names runs and sets the exit code, or throws ToolError.
namespace commands
{

void addDemo(CLI::App& application, int& code);
void addSend(CLI::App& application, int& code);
void addListen(CLI::App& application, int& code);
void addCapture(CLI::App& application, int& code);
void addReplay(CLI::App& application, int& code);
void addSimulate(CLI::App& application, int& code);
void addBridge(CLI::App& application, int& code);
void addDoctor(CLI::App& application, int& code);
void addPorts(CLI::App& application, int& code);
void addDevices(CLI::App& application, int& code);
void addEncode(CLI::App& application, int& code);
void addDecode(CLI::App& application, int& code);

} // namespace commands
