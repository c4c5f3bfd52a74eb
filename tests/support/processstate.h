// SPDX-License-Identifier: MIT
#pragma once

/// What this process, or the one with an id, holds right now, from /proc.
namespace processstate
{

/// Number of threads, but for those that the library starts once, with its first link, and those
/// that are ending: one that has been joined is not counted.
int threads();

int descriptors();   ///< number of open file descriptors
long residentKiB();  ///< resident memory, KiB
double cpuSeconds(); ///< processor time used so far by all threads, s

long residentKiB(long process);
double cpuSeconds(long process);

/// How often a process's main thread has waited for something so far.
long waits(long process);

} // namespace processstate
