// SPDX-License-Identifier: MIT
#include "icoreosdbase.h"

#include "osdrecordsource.h"

ICoreOsdBase::ICoreOsdBase()
{
    osdrecordsource::add(this);
}

ICoreOsdBase::~ICoreOsdBase()
{
    osdrecordsource::remove(this);
}
