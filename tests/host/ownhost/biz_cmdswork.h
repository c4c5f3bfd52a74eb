// SPDX-License-Identifier: MIT
#pragma once

#include "records.h"

#include <array>
#include <atomic>
#include <deque>
#include <mutex>

// Larger than the class that the library is compiled with, and with a table of virtual functions.
class OWN_HOST_API biz_CMDSWork
{
public:
    biz_CMDSWork();
    virtual ~biz_CMDSWork();
    virtual void clearQueue();

    static std::mutex HexCmdlock;
    static bool bRetFlag;
    static std::mutex receiveHexCmdlock;
    static std::deque<model_Protocoldata> receivequeueHexCmd;
    static std::atomic<int> cleared; // with its marks as the constructor has set them

private:
    bool isWhole() const;

    std::array<int, 1000> marks;
};
