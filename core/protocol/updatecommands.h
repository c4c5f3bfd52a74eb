// SPDX-License-Identifier: MIT
#pragma once

#include <array>

/// The commands whose block begins in a report of its own, and the USB devices that take them so.
namespace updatecommands
{

constexpr unsigned short vendor = 0x04B4;
constexpr std::array<unsigned short, 3> products{0x1008, 0x100A, 0x100C};

/// The digits of CMD and DAT1 in a text frame.
constexpr std::array<const char*, 7> codes{"9aa0", "9aa2", "9aa4", "9aa6", "9aa8", "9aaa", "9aac"};

} // namespace updatecommands
