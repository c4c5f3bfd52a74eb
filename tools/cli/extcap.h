// SPDX-License-Identifier: MIT
#pragma once

/// Wireshark's interface to programs that capture: each kind of link is an interface, and what is
/// captured goes into a pipe that Wireshark reads.
namespace extcap
{

/// Whether Wireshark calls: only it has such arguments.
bool isAsked(int argc, char** argv);

/// Does what it asks for and returns the exit code.
int run(int argc, char** argv);

} // namespace extcap
