// SPDX-License-Identifier: MIT
#pragma once

#include "records.h"

/// What this company's programs share: the system's log, byte arithmetic, the device type.
class Utility_Manage
{
public:
    /// One line of the system's log, which the system bounds. Any thread, until the very end of the
    /// process: nothing here is ever destroyed.
    static void writeLog(QString text);

    static qint16 combineTwoByte(quint8 first, quint8 second); ///< second * 256 + first
    static quint8 getHighByte(quint16 value);
    static quint8 getLowByte(quint16 value);
    static model_GlobalEnum::DeviceType getDeviceType();
};
