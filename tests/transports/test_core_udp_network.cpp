// SPDX-License-Identifier: MIT
// The addresses and ports that devices in the field have, on a network of the test's own: two
// namespaces joined by a veth pair.
#include "core_udp.h"
#include "eventually.h"
#include "hostqueue.h"
#include "messagecapture.h"
#include "networkcable.h"
#include "udppeer.h"
#include "utility_manage.h"

#include <gtest/gtest.h>

#include <QProcess>

#include <memory>

namespace
{

const QByteArray commandText = "<T0000100000000010>";

model_Protocoldata command()
{
    model_Protocoldata record;
    record.CMD = 0x10;
    return record;
}

} // namespace

// This process holds the host's end (100.100.100.1), a machine of its own the other.
class CoreUdpNetwork : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (!netns::isolated()) {
            GTEST_SKIP() << "needs the right to make a network namespace (root or user namespaces)";
        }
        cable = std::make_unique<NetworkCable>();
        ASSERT_TRUE(cable->exists());
        ASSERT_TRUE(netns::run("ip addr add 100.100.100.1/24 dev host0"));
        ASSERT_TRUE(cable->runOnDevice("ip addr add 100.100.100.100/24 dev device0"));
        ASSERT_TRUE(cable->plugIn()); // a broadcast that comes before is lost
        ASSERT_TRUE(netns::run("ip route add 255.255.255.255 dev host0"));
        hostqueue::clear();
    }

    void TearDown() override
    {
        Utility_Manage::setDeviceType(model_GlobalEnum::DeviceUnknown);
        responder.kill();
        responder.waitForFinished();
    }

    // Answers each datagram on a port with one reply, from where it came, and prints it.
    void answerOn(int port)
    {
        const QString script =
            QStringLiteral("import socket,sys\n"
                           "s=socket.socket(socket.AF_INET,socket.SOCK_DGRAM)\n"
                           "s.setsockopt(socket.SOL_SOCKET,socket.SO_BROADCAST,1)\n"
                           "s.bind(('0.0.0.0',%1))\n"
                           "print('ready',flush=True)\n"
                           "while True:\n"
                           "    data,peer=s.recvfrom(65536)\n"
                           "    print(data.decode('latin1'),peer[0],peer[1],flush=True)\n"
                           "    s.sendto(b'<F0001100000000011>',peer)\n")
                .arg(port);
        QStringList arguments =
            QString::fromLatin1(cable->onDevice()).split(QLatin1Char(' '), Qt::SkipEmptyParts);
        const QString program = arguments.takeFirst();
        arguments << QStringLiteral("python3") << QStringLiteral("-c") << script;
        responder.start(program, arguments);
        ASSERT_EQ(nextLine(), QByteArray("ready"));
    }

    QByteArray nextLine()
    {
        eventually([this] { return responder.canReadLine(); });
        return responder.readLine().trimmed();
    }

    std::unique_ptr<NetworkCable> cable;
    QProcess responder;
};

TEST_F(CoreUdpNetwork, DefaultAddressAndPort)
{
    answerOn(1000);
    core_UDP transport;
    model_Protocoldata record = command();
    transport.sendDatatoDevice(&record);
    EXPECT_EQ(nextLine(), commandText + " 100.100.100.1 5104");
    ASSERT_TRUE(eventually([] { return hostqueue::size() == 1; }));
    EXPECT_EQ(hostqueue::records().front().strKey, QStringLiteral("100.100.100.100"));
}

TEST_F(CoreUdpNetwork, BroadcastReachesTheDevice)
{
    answerOn(1000);
    core_UDP transport;
    const MessageCapture capture;
    const QString logLine = QStringLiteral("Send successful:<T0000100000000010>");
    const auto logged = hostqueue::countLog(logLine);
    model_Protocoldata record = command();
    record.sendMode = 1;
    transport.setDeviceIP(QString());
    transport.sendDatatoDevice(&record);
    EXPECT_EQ(nextLine(), commandText + " 100.100.100.1 5104");
    EXPECT_EQ(capture.lines().first(), QStringLiteral("Send Broadcast successful"));
    EXPECT_EQ(hostqueue::countLog(logLine), logged + 1);
    record.featureCode = 0x3200;
    transport.sendDatatoDeviceByFeatures(&record);
    EXPECT_EQ(nextLine(), commandText + " 100.100.100.1 5104");
    ASSERT_TRUE(eventually([] { return hostqueue::size() == 2; }));
}

TEST_F(CoreUdpNetwork, BroadcastIsOneDatagramWhateverItsSize)
{
    answerOn(1000);
    core_UDP transport;
    const QByteArray frame(1400, 'b');
    transport.sendUdpDataBroadcast(frame);
    EXPECT_EQ(nextLine(), frame + " 100.100.100.1 5104");
    const MessageCapture capture;
    transport.sendUdpDataBroadcast(QByteArray(70000, 'b')); // more than a datagram can hold
    EXPECT_EQ(capture.lines(), QStringList(QStringLiteral("Send Broadcast failed")));
}

TEST_F(CoreUdpNetwork, BroadcastGoesToThePortThatWasSet)
{
    answerOn(4321);
    core_UDP transport;
    transport.setPort(4321);
    model_Protocoldata record = command();
    record.sendMode = 1;
    transport.sendDatatoDevice(&record);
    EXPECT_EQ(nextLine(), commandText + " 100.100.100.1 5104");
}

TEST_F(CoreUdpNetwork, EmptyBroadcastIsADatagramWithoutBytes)
{
    answerOn(1000);
    core_UDP transport;
    const MessageCapture capture;
    const auto before = hostqueue::logLines().size();
    transport.sendUdpDataBroadcast(QByteArray());
    EXPECT_EQ(capture.lines(), QStringList(QStringLiteral("Send Broadcast successful")));
    EXPECT_EQ(hostqueue::logLines().mid(before), QStringList(QStringLiteral("Send successful:")));
    EXPECT_EQ(nextLine(), QByteArray("100.100.100.1 5104"));
}

TEST_F(CoreUdpNetwork, FixedPortDeviceType)
{
    Utility_Manage::setDeviceType(model_GlobalEnum::Device353101);
    answerOn(3005);
    core_UDP transport;
    model_Protocoldata record = command();
    transport.sendDatatoDevice(&record);
    EXPECT_EQ(nextLine(), commandText + " 100.100.100.1 3005");
    record.strKey = QStringLiteral("100.100.100.100"); // as a reply's strKey
    transport.sendDatatoDeviceForSysPlan(&record);
    EXPECT_EQ(nextLine(), commandText + " 100.100.100.1 3005");
    ASSERT_TRUE(eventually([] { return hostqueue::size() == 2; }));
}

TEST_F(CoreUdpNetwork, NetworkThatGoesDownFailsPlainlyAndComesBack)
{
    answerOn(1000);
    core_UDP transport;
    ASSERT_TRUE(netns::run("ip link set host0 down"));
    const MessageCapture capture;
    model_Protocoldata record = command();
    transport.sendDatatoDevice(&record);
    EXPECT_EQ(capture.lines().first(), QStringLiteral("Send Broadcast failed"));
    record.sendMode = 1;
    transport.sendDatatoDevice(&record);
    EXPECT_EQ(capture.count(QStringLiteral("Send Broadcast failed")), 2);
    ASSERT_TRUE(netns::run("ip link set host0 up"));
    record.sendMode = 0;
    ASSERT_TRUE(eventually([&] { // the link's carrier takes a moment
        transport.sendDatatoDevice(&record);
        return hostqueue::size() > 0;
    }));
}
