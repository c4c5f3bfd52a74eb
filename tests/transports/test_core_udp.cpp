// SPDX-License-Identifier: MIT
#include "core_udp.h"
#include "eventually.h"
#include "hostqueue.h"
#include "messagecapture.h"
#include "processstate.h"
#include "threadrefusal.h"

#include <gtest/gtest.h>

#include <QUdpSocket>

TEST(CoreUdp, SendsACommandAndQueuesTheReply)
{
    QUdpSocket device;
    ASSERT_TRUE(device.bind(QHostAddress(QHostAddress::LocalHost), quint16{0}));
    core_UDP transport;
    transport.setDeviceIP(QStringLiteral("127.0.0.1"));
    transport.setPort(device.localPort());
    model_Protocoldata record;
    record.CMD = 0x10;
    transport.sendDatatoDevice(&record);
    ASSERT_TRUE(eventually([&] { return device.hasPendingDatagrams(); }));
    char buffer[100];
    QHostAddress from;
    quint16 port = 0;
    ASSERT_EQ(device.readDatagram(buffer, sizeof buffer, &from, &port), 19);
    EXPECT_EQ(QByteArray(buffer, 19), QByteArray("<T0000100000000010>"));
    EXPECT_EQ(port, 5104);
    device.writeDatagram("<F0000100000000010>", 19, from, port);
    ASSERT_TRUE(eventually([] { return hostqueue::size() == 1; }));
    EXPECT_EQ(hostqueue::records().front().strKey, QStringLiteral("127.0.0.1"));
    EXPECT_TRUE(hostqueue::flag());
}
