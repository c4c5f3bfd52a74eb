// SPDX-License-Identifier: MIT
#pragma once

/// Marks what libCore_Manage exports.
#define CORE_MANAGE_EXPORT __attribute__((visibility("default")))
