// SPDX-License-Identifier: MIT
#include "icoreosdbase.h"

#include "osdrecords.h"

ICoreOsdBase::ICoreOsdBase()
{
    OsdRecords::begin(this);
}

ICoreOsdBase::~ICoreOsdBase()
{
    OsdRecords::end(this);
}
