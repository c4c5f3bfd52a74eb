// SPDX-License-Identifier: MIT
#include "biz_osd_cmdswork.h"

#include <utility>

std::mutex biz_Osd_CMDSWork::receiveOsdlock;
std::deque<model_OsdParam> biz_Osd_CMDSWork::receivequeueOsd;

void biz_Osd_CMDSWork::addToReceiveQueue(model_OsdParam record)
{
    const std::lock_guard lock(receiveOsdlock);
    receivequeueOsd.push_back(std::move(record));
}
