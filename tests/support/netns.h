// SPDX-License-Identifier: MIT
#pragma once

/// Network namespaces of the test's own.
namespace netns
{

/// Moves the process, which must have one thread yet, into a new network namespace with its
/// loopback interface up, and gives it pseudo-terminals of its own, and a directory of its own for
/// the lock files of serial ports.
/// False, with nothing changed, where the system does not allow it.
bool isolate();

/// Whether isolate has succeeded.
bool isolated();

/// In an isolated process: what the system takes in for a TCP connection that nobody reads is at
/// most 256 KiB from now on, so that a few megabytes are more than it buffers.
void limitReceiveBuffers();

/// In an isolated process: as limitReceiveBuffers, but it takes in 16 MiB.
void enlargeReceiveBuffers();

/// As limitReceiveBuffers, and as much for what is sent: one megabyte is more than both buffer.
void limitBuffers();

/// Runs a program from iproute2 or the like with these arguments; false if it fails.
bool run(const char* command);

} // namespace netns
