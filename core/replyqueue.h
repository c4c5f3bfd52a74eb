// SPDX-License-Identifier: MIT
#pragma once

#include "model_protocoldata.h"

#include <memory>

class biz_CMDSWork;

/// The one way from the links to the business layer: its reply queue and its reply flag.
///
/// Lock order everywhere: biz_CMDSWork::receiveHexCmdlock, then biz_CMDSWork::HexCmdlock.
namespace replyqueue
{

/// Appends one record and raises the flag, on the calling thread. Waits for the host's locks.
void append(model_Protocoldata record);

/// Appends one record and raises the flag without ever waiting: at once if both locks are free,
/// else, in order, on a detached thread. Nothing is lost when the thread is refused: the record
/// follows with the next one, or when the main event loop comes round.
void post(model_Protocoldata record);

/// For a reply that cannot be completed: raises the flag, then writes \a text as a debug line and
/// to the log, on the calling thread. Waits for the flag's lock.
void reportFailure(const char* text);

/// reportFailure on the detached thread, in order with the records posted before. \a text must live
/// for ever. Never waits.
void postFailure(const char* text);

/// Sets the flag on the calling thread. Waits for its lock.
void setRetFlag(bool on);

/// Runs biz_CMDSWork::clearQueue on a detached thread that shares ownership of \a work. Never
/// waits. A refused thread is tried again as for post.
void clearElsewhere(const std::shared_ptr<biz_CMDSWork>& work);

} // namespace replyqueue
