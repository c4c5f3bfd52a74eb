// SPDX-License-Identifier: MIT
#include "icorebase.h"

ICoreBase::ICoreBase() = default;
ICoreBase::~ICoreBase() = default;
