// SPDX-License-Identifier: MIT
#include "biz_cmdswork.h"

std::mutex biz_CMDSWork::HexCmdlock;
bool biz_CMDSWork::bRetFlag = false;
std::mutex biz_CMDSWork::receiveHexCmdlock;
std::deque<model_Protocoldata> biz_CMDSWork::receivequeueHexCmd;

biz_CMDSWork::biz_CMDSWork() = default;
biz_CMDSWork::~biz_CMDSWork() = default;

void biz_CMDSWork::clearQueue()
{
    std::deque<model_Protocoldata> dropped;
    const std::lock_guard lock(receiveHexCmdlock);
    dropped.swap(receivequeueHexCmd);
}
