// SPDX-License-Identifier: MIT
#pragma once

#include "tests/transports/udppeer.h"
#include "toolprocess.h"

#include <gtest/gtest.h>

#include <memory>

/// The link to a device that the test plays.
inline QString udpAddress(const UdpPeer& peer)
{
    return QStringLiteral("udp://127.0.0.1:%1").arg(peer.port());
}

/// coremanage send and listen with a device that the test plays.
class UdpTool : public ::testing::Test
{
protected:
    QString address() const { return udpAddress(device); }

    /// It waits for a reply as long as the test may need, if the options do not say how long.
    std::unique_ptr<ToolProcess> send(const char* options, const QByteArray& input = {})
    {
        QStringList arguments =
            words(QStringLiteral("send %1 %2").arg(address(), QLatin1String(options)));
        if (!arguments.contains(QStringLiteral("--timeout"))) {
            arguments << QStringLiteral("--timeout") << QStringLiteral("60000");
        }
        return std::make_unique<ToolProcess>(arguments, input);
    }

    /// How many further datagrams the device got from a tool that has ended.
    int furtherDatagrams()
    {
        int count = 0;
        for (; device.hasDatagram(); ++count) {
            device.receive();
        }
        return count;
    }

    std::unique_ptr<ToolProcess> listen(const char* options)
    {
        auto tool = std::make_unique<ToolProcess>(
            words(QStringLiteral("listen %1 %2").arg(address(), QLatin1String(options))));
        EXPECT_TRUE(tool->says(QStringLiteral("listening on udp://")));
        return tool;
    }

    UdpPeer device;
};
