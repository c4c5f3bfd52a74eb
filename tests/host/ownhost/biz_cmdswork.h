// SPDX-License-Identifier: MIT
#pragma once

#include "records.h"

#include <deque>
#include <mutex>

class OWN_HOST_API biz_CMDSWork
{
public:
    biz_CMDSWork();
    ~biz_CMDSWork();
    void clearQueue();

    static std::mutex HexCmdlock;
    static bool bRetFlag;
    static std::mutex receiveHexCmdlock;
    static std::deque<model_Protocoldata> receivequeueHexCmd;
    static int cleared;
};
