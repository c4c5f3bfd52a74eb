// SPDX-License-Identifier: MIT
#include "replybytes.h"
#include "tests/transports/serialpeer.h"
#include "toolprocess.h"

#include <gtest/gtest.h>

TEST(SerialTool, SendsOverASerialPortAndShowsTheReply)
{
    SerialPeer device;
    ToolProcess tool(
        words(QStringLiteral("send serial://%1?baud=9600&parity=even --cmd 0x10 --json")
                  .arg(device.portName())));
    ASSERT_TRUE(eventually([&device] { return device.received().size() >= 19; }));
    EXPECT_EQ(device.received(), QByteArray("<T00001000000000") + "10>");
    const termios set = device.settings();
    EXPECT_EQ(cfgetospeed(&set), speed_t(B9600));
    EXPECT_TRUE(device.send(replybytes::text(0x10, 0x20)));
    EXPECT_EQ(tool.exitCode(), 0) << tool.error().toStdString();
    EXPECT_TRUE(tool.output().contains("\"dat1\":32"));
}

TEST(SerialTool, SaysThatTheDeviceHasGone)
{
    SerialPeer device;
    ToolProcess tool(words(QStringLiteral("listen vela://%1").arg(device.portName())));
    ASSERT_TRUE(tool.says(QStringLiteral("listening on")));
    device.hangUp();
    EXPECT_EQ(tool.exitCode(), 1);
    EXPECT_TRUE(tool.error().contains(QLatin1String("the device has gone")));
}

TEST(SerialTool, RefusesWrongSettingsAndPorts)
{
    for (const char* link :
         {"serial:///dev/ttyS0?baud=fast", "serial:///dev/ttyS0?data=9",
          "vela:///dev/ttyS0?parity=some", "serial:///dev/ttyS0?speed=1", "serial://"}) {
        EXPECT_EQ(ToolRun({QStringLiteral("send"), QLatin1String(link), QStringLiteral("--cmd"),
                           QStringLiteral("1")})
                      .code,
                  2)
            << link;
    }
    const ToolRun missing(words(QStringLiteral("send serial:///dev/ttyNone --cmd 1")));
    EXPECT_EQ(missing.code, 3);
    EXPECT_TRUE(missing.error.contains(QLatin1String("there is no /dev/ttyNone")));
}

TEST(SerialTool, ListsPorts)
{
    const ToolRun ports({QStringLiteral("ports")});
    EXPECT_TRUE((ports.code == 0 && !ports.output.isEmpty()) ||
                (ports.code == 1 && ports.error.contains(QLatin1String("no serial port"))));
}
