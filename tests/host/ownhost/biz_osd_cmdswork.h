// SPDX-License-Identifier: MIT
#pragma once

#include "records.h"

class OWN_HOST_API biz_Osd_CMDSWork
{
public:
    static void addToReceiveQueue(model_OsdParam record);
};
