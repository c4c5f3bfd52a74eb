// SPDX-License-Identifier: MIT
#include "records.h"
