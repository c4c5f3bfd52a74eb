// SPDX-License-Identifier: MIT
#include "core_manage.h"

#include "hostcontract.h"

Core_Manage::Core_Manage() = default;
