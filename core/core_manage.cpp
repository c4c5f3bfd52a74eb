// SPDX-License-Identifier: MIT
#include "core_manage.h"

Core_Manage::Core_Manage() = default;
