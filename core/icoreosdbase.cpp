// SPDX-License-Identifier: MIT
#include "icoreosdbase.h"

ICoreOsdBase::ICoreOsdBase() = default;
ICoreOsdBase::~ICoreOsdBase() = default;
