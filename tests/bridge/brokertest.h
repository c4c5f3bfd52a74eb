// SPDX-License-Identifier: MIT
#pragma once

#include "broker.h"

#include <gtest/gtest.h>

#include <QStandardPaths>

/// A test that needs a broker; skipped where there is none.
class BrokerTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        for (const char* program : {"mosquitto_passwd", "openssl", "setpriv"}) {
            if (QStandardPaths::findExecutable(QLatin1String(program)).isEmpty()) {
                GTEST_SKIP() << program << " is missing";
            }
        }
    }
};
