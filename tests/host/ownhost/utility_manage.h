// SPDX-License-Identifier: MIT
#pragma once

#include "records.h"

#include <atomic>

class OWN_HOST_API Utility_Manage
{
public:
    static void writeLog(QString text);
    static short combineTwoByte(unsigned char first, unsigned char second);
    static unsigned char getHighByte(unsigned short value);
    static unsigned char getLowByte(unsigned short value);
    static model_GlobalEnum::DeviceType getDeviceType();
    static std::atomic<int> linesWritten;
};
