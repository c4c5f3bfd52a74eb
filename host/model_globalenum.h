// SPDX-License-Identifier: MIT
#pragma once

#include <cstdint>

/// Enumerations that the host shares with the libraries below it.
class model_GlobalEnum
{
public:
    /// Device model. Any 32-bit value is allowed; the named ones change how a link behaves.
    enum DeviceType : std::int32_t {
        DeviceUnknown = 0,
        Device290200 = 0x290200, ///< serial: the block of reply 0x69/0x09 has 33 bytes, not 129
        Device353100 = 0x353100, ///< UDP: local and device port 3005
        Device353101 = 0x353101, ///< UDP: local and device port 3005
    };
};
