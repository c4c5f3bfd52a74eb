// SPDX-License-Identifier: MIT
#include "fixedlocalport.h"

#include <gtest/gtest.h>

TEST(FixedLocalPort, IsTheSameWithEveryQtAndOnEveryMachine)
{
    EXPECT_EQ(fixedLocalPort(), 5104);
    EXPECT_EQ(fixedLocalPort(), 5104);
}
