// SPDX-License-Identifier: MIT
#pragma once

#include "linkregistry.h"

/// usb://VENDOR:PRODUCT, the first USB HID device with these ids, four hexadecimal digits each.
namespace usbtarget
{

std::unique_ptr<LinkTarget> parse(const LinkAddress& address); ///< throws BadInput

bool demonstrate(Narrator& narrator);

} // namespace usbtarget
