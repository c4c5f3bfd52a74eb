// SPDX-License-Identifier: MIT
#include "core_osd_tcpsocket.h"
#include "corefactory.h"
#include "eventlog.h"
#include "icoreosdbase.h"
#include "osdhost.h"
#include "osdsimulator.h"
#include "processstate.h"

#include <gtest/gtest.h>

#include <utility>

namespace
{

using Kind = LinkEvent::Kind;

const QString here = QStringLiteral("127.0.0.1");

OsdSimulatorOptions anyPort()
{
    OsdSimulatorOptions options;
    options.port = 0;
    options.dataLength = 0;
    return options;
}

} // namespace

TEST(OsdObserver, AManagersHearsOfAllItsEndpoints)
{
    OsdSimulator first(anyPort());
    ASSERT_TRUE(first.start());
    OsdSimulatorOptions other = anyPort();
    other.address = QStringLiteral("127.0.0.2");
    OsdSimulator second(other);
    ASSERT_TRUE(second.start());
    const auto log = std::make_shared<EventLog>();
    ICoreOsdBase& manager = *CoreFactory::createOsdCoreObj(ConnOsdTcp);
    manager.addObserver(log);
    manager.openClient(here, first.port());
    manager.openClient(other.address, second.port());
    ASSERT_TRUE(log->has(2, Kind::Opened));
    model_OsdParam record = osdhost::command(other.address, 'm');
    manager.sendDatatoDevice(&record);
    ASSERT_TRUE(log->has(1, Kind::Reply));
    const auto reply = log->all(Kind::Reply).at(0);
    EXPECT_EQ(reply.event.peer, other.address);
    EXPECT_EQ(reply.event.port, second.port());
    EXPECT_EQ(reply.acknowledgement.strIP, other.address);
    EXPECT_TRUE(reply.event.bytes.startsWith("OK"));
    EXPECT_EQ(reply.event.bytes, log->bytes(Kind::Received));
    ASSERT_EQ(log->all(Kind::Sent).size(), 1U);
    EXPECT_EQ(log->all(Kind::Sent).at(0).event.peer, other.address);
    EXPECT_LE(log->all(Kind::Sent).at(0).event.time, log->all(Kind::Received).at(0).event.time);
    first.send("noise");
    EXPECT_TRUE(log->hasBytes("noise", Kind::Skipped));
    EXPECT_EQ(log->all(Kind::Skipped).size(), 1U);
    first.hangUp(false);
    EXPECT_TRUE(log->has(1, Kind::Lost));
    EXPECT_EQ(log->all(Kind::Lost).at(0).event.peer, here);
    manager.closeClient(other.address);
    EXPECT_TRUE(log->has(1, Kind::Closed));
    EXPECT_EQ(log->all(Kind::Closed).at(0).event.peer, other.address);
    delete std::exchange(CoreFactory::iOsdCore, nullptr);
}

TEST(OsdObserver, TellsOfARefusedConnectionAsLost)
{
    OsdSimulator endpoint(anyPort());
    ASSERT_TRUE(endpoint.start());
    const quint16 port = endpoint.port();
    const int threads = processstate::threads();
    const auto log = std::make_shared<EventLog>();
    Core_Osd_TcpSocket socket;
    socket.addObserver(log);
    socket.connectSever(here, port);
    EXPECT_TRUE(log->has(1, Kind::Opened));
    socket.close();
    EXPECT_TRUE(log->has(1, Kind::Closed));
    // What has told of it may not have ended yet: a start waits for that, but not for long.
    ASSERT_TRUE(eventually([threads] { return processstate::threads() == threads; }));
    socket.connectSever(here, 1); // nobody listens there
    EXPECT_TRUE(log->has(1, Kind::Lost));
    EXPECT_EQ(log->all(Kind::Opened).size(), 1U);
}
