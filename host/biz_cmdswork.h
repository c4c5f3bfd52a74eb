// SPDX-License-Identifier: MIT
#pragma once

#include "core_manage_host_export.h"
#include "model_protocoldata.h"

#include <deque>
#include <mutex>

/// The business layer's side of the device links: the queue of decoded replies and the flag that
/// says one has come.
///
/// Lock order: receiveHexCmdlock before HexCmdlock, never the other way round. The links append a
/// record under receiveHexCmdlock and, still holding it, raise the flag under HexCmdlock.
class CORE_MANAGE_HOST_EXPORT biz_CMDSWork
{
public:
    biz_CMDSWork();
    ~biz_CMDSWork();
    biz_CMDSWork(const biz_CMDSWork&) = delete;
    biz_CMDSWork& operator=(const biz_CMDSWork&) = delete;

    /// Empties the reply queue. Any thread; waits for receiveHexCmdlock. The links call it on a
    /// thread that may outlive them, one call after the other.
    void clearQueue();

    static std::mutex HexCmdlock;        ///< guards bRetFlag
    static bool bRetFlag;                ///< raised by a link when a sender may stop waiting
    static std::mutex receiveHexCmdlock; ///< guards receivequeueHexCmd
    static std::deque<model_Protocoldata> receivequeueHexCmd; ///< replies, oldest at the front
};
