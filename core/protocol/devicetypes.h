// SPDX-License-Identifier: MIT
#pragma once

#include "model_globalenum.h"

/// The device models that change how a link behaves, by value: a host names them as it likes.
namespace devicetypes
{

constexpr auto unset = model_GlobalEnum::DeviceType{};
constexpr auto shortBlock = static_cast<model_GlobalEnum::DeviceType>(0x290200);
constexpr auto fixedPortA = static_cast<model_GlobalEnum::DeviceType>(0x353100);
constexpr auto fixedPortB = static_cast<model_GlobalEnum::DeviceType>(0x353101);

} // namespace devicetypes
