// SPDX-License-Identifier: MIT
#include "commandframe.h"

#include <gtest/gtest.h>

TEST(TextFrame, KnownCommand)
{
    model_Protocoldata record;
    record.HEAD = 1;
    record.ADDR = 2;
    record.CMD = 3;
    record.DAT1 = 4;
    record.DAT2 = 5;
    record.DAT3 = 6;
    record.DAT4 = 7;
    EXPECT_EQ(commandframe::encodeText(record), QByteArray("<T010203040506071c>"));
}
