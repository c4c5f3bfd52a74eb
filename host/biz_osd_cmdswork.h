// SPDX-License-Identifier: MIT
#pragma once

#include "core_manage_host_export.h"
#include "model_osdparam.h"

#include <deque>
#include <mutex>

/// The business layer's side of the on-screen-display endpoints: the queue of acknowledgements.
class CORE_MANAGE_HOST_EXPORT biz_Osd_CMDSWork
{
public:
    /// Takes one acknowledgement. Called by the endpoints, each time on a short thread of its own:
    /// any thread, several at once; it may block without delaying anything else.
    static void addToReceiveQueue(model_OsdParam record);

    static std::mutex receiveOsdlock;                  ///< guards receivequeueOsd
    static std::deque<model_OsdParam> receivequeueOsd; ///< acknowledgements, oldest at the front
};
