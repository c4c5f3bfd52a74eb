// SPDX-License-Identifier: MIT
#pragma once

#include "core_manage_export.h"

/// Anchors the library: linking against it and making one object loads libCore_Manage. It does
/// nothing else.
class CORE_MANAGE_EXPORT Core_Manage
{
public:
    Core_Manage();
};
