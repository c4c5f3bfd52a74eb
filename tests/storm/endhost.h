// SPDX-License-Identifier: MIT
#pragma once

#include <atomic>
#include <string>

/// A host that cannot be touched once its static objects have gone: its queues and locks are in
/// pages that are closed then, and its functions end the process.
///
/// It tells how it went on a descriptor: "<text> <time in ns>" for each note, and "gone <time>
/// <tags>" when its static objects go, with the tags of all replies that have come by then.
namespace endhost
{

/// What the log does, and what else of the host is called by the library's threads.
enum class Log { Writes, Exits, Blocks, ReturnsLate };

[[gnu::visibility("default")]] void begin(int descriptor);
[[gnu::visibility("default")]] void note(const char* text);
[[gnu::visibility("default")]] void setLog(Log what);
[[gnu::visibility("default")]] bool isInLog(); ///< somebody is kept there

[[gnu::visibility("default")]] void keepQueues();    ///< takes the locks of both queues
[[gnu::visibility("default")]] void releaseQueues(); ///< on the same thread
[[gnu::visibility("default")]] void keepFlag();      ///< for ever
[[gnu::visibility("default")]] std::size_t replies();
[[gnu::visibility("default")]] int waiting(); ///< threads that wait for a kept queue

[[gnu::visibility("default")]] void endOnce(); ///< std::exit(0), but by the first caller only

} // namespace endhost
