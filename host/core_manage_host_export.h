// SPDX-License-Identifier: MIT
#pragma once

/// Marks what the reference host exports.
#define CORE_MANAGE_HOST_EXPORT __attribute__((visibility("default")))
