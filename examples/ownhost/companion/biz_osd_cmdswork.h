// SPDX-License-Identifier: MIT
#pragma once

#include "records.h"

/// The business layer of the on-screen displays: this company counts acknowledgements, no more.
class biz_Osd_CMDSWork
{
public:
    static void addToReceiveQueue(model_OsdParam record); ///< any thread, several at once

    static int acknowledgements(); ///< so far
};
