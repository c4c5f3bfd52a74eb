// SPDX-License-Identifier: MIT
#pragma once

#include "records.h"

#include <deque>
#include <mutex>

/// The business layer of this company's programs, as the links need it.
class biz_CMDSWork
{
public:
    biz_CMDSWork();
    ~biz_CMDSWork();
    void clearQueue(); ///< called on a thread of the library's; waits for receiveHexCmdlock

    static std::mutex receiveHexCmdlock; ///< taken before HexCmdlock
    static std::deque<model_Protocoldata> receivequeueHexCmd;
    static std::mutex HexCmdlock;
    static bool bRetFlag;
};
