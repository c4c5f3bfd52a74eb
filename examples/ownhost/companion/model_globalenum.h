// SPDX-License-Identifier: MIT
#pragma once
#include "records.h" // libCore_Manage asks for this name
