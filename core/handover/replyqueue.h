// SPDX-License-Identifier: MIT
#pragma once

#include "model_protocoldata.h"

#include <memory>

class LinkTap;
class biz_CMDSWork;

/// The one way from the links to the business layer: its reply queue and its reply flag. Records,
/// flags and clears never wait for each other, nor for anything else that the host does.
///
/// Lock order everywhere: biz_CMDSWork::receiveHexCmdlock, then biz_CMDSWork::HexCmdlock.
namespace replyqueue
{

/// Starts the two threads that deliver what the host keeps waiting, for the life of the process. A
/// link calls it before it opens: false if the system refuses a thread, and the link stays closed.
[[nodiscard]] bool start();

/// Appends one record and raises the flag, on the calling thread. Waits for the host's locks. What
/// watches the link is told behind that.
void append(model_Protocoldata record, const LinkTap& tap);

/// Appends one record and raises the flag without waiting: at once if both locks are free, else, in
/// order, on the thread that start has started. What watches the link is told behind that.
void post(model_Protocoldata record, const LinkTap& tap);

/// Whether the records that wait for the host's locks have reached their bound, 16 MiB: then a link
/// is to leave further replies where they are.
bool isFull();

/// Sets the flag on the calling thread. Waits for its lock.
void setRetFlag(bool on);

/// Raises the flag without waiting: at once if its lock is free, else on that thread.
void raiseRetFlag();

/// An object of the host's class, which may be larger than the one that the library is compiled
/// with.
std::shared_ptr<biz_CMDSWork> makeWork();

/// Runs biz_CMDSWork::clearQueue on another thread, which shares ownership of \a work meanwhile:
/// one call after the other. Does not wait.
void clearElsewhere(const std::shared_ptr<biz_CMDSWork>& work);

} // namespace replyqueue
