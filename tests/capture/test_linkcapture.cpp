// SPDX-License-Identifier: MIT
#include "capturedpackets.h"
#include "core_serialport.h"
#include "core_udp.h"
#include "linkcapture.h"
#include "linkcounters.h"
#include "tests/support/eventlog.h"
#include "tests/transports/serialpeer.h"
#include "tests/transports/udppeer.h"

#include <gtest/gtest.h>

#include <QTemporaryDir>

#include <algorithm>

namespace
{

using What = CaptureRecord::What;

class Capture : public ::testing::Test
{
protected:
    void begin(ObservableLink& link, const QString& name)
    {
        ASSERT_TRUE(file->open(path())) << file->error().toStdString();
        link.addObserver(std::make_shared<LinkCapture>(file, name));
        link.addObserver(log);
    }

    QString path() const { return directory.filePath(QStringLiteral("wire.pcap")); }

    QTemporaryDir directory;
    std::shared_ptr<CaptureFile> file = std::make_shared<CaptureFile>();
    std::shared_ptr<EventLog> log = std::make_shared<EventLog>();
};

} // namespace

TEST_F(Capture, HasBothDirectionsOfUdp)
{
    UdpPeer device;
    core_UDP link;
    const QString name = QStringLiteral("udp://127.0.0.1:%1").arg(device.port());
    begin(link, name);
    link.setDeviceIP(QStringLiteral("127.0.0.1"));
    link.setPort(device.port());
    model_Protocoldata command;
    command.CMD = 0x10;
    link.sendDatatoDevice(&command);
    const QByteArray sent = device.receive().bytes;
    device.send(replyText(0x10, 0x02));
    ASSERT_TRUE(log->has(1, LinkEvent::Kind::Received));
    file->close();
    std::vector<CaptureRecord> packets = capturedPackets(path());
    ASSERT_GE(packets.size(), 2U);
    EXPECT_EQ(static_cast<qint64>(packets.size()), file->written());
    const CaptureRecord& command0 = packets[packets.size() - 2];
    EXPECT_EQ(command0.what, What::Sent);
    EXPECT_EQ(command0.medium, CaptureRecord::Medium::Udp);
    EXPECT_EQ(command0.link, name.toUtf8());
    EXPECT_EQ(command0.device.address, QHostAddress(QHostAddress::LocalHost));
    EXPECT_EQ(command0.device.port, device.port());
    EXPECT_EQ(command0.bytes, sent);
    const CaptureRecord& reply = packets.back();
    EXPECT_EQ(reply.what, What::Received);
    EXPECT_EQ(reply.device.port, device.port());
    EXPECT_EQ(reply.bytes, replyText(0x10, 0x02));
    const auto event = log->all(LinkEvent::Kind::Received).front().event;
    EXPECT_EQ(reply.time, event.time.time_since_epoch().count());
}

TEST_F(Capture, HasWhatHappensToASerialLine)
{
    SerialPeer device;
    Core_SerialPort link;
    begin(link, QStringLiteral("serial://x"));
    ASSERT_TRUE(link.openSerialPort(device.portName(), QSerialPort::Baud115200,
                                    QSerialPort::OneStop, QSerialPort::NoParity,
                                    QSerialPort::NoFlowControl, QSerialPort::Data8));
    EXPECT_TRUE(device.send("noise"));
    EXPECT_TRUE(log->hasBytes("noise", LinkEvent::Kind::Received));
    link.closeSerialPort();
    ASSERT_TRUE(log->has(1, LinkEvent::Kind::Closed));
    file->close();
    QByteArray received;
    std::vector<What> happened;
    for (const CaptureRecord& packet : capturedPackets(path())) {
        EXPECT_EQ(packet.medium, CaptureRecord::Medium::Serial);
        EXPECT_TRUE(packet.device.address.isNull());
        if (packet.what == What::Received) {
            received += packet.bytes;
        } else {
            happened.push_back(packet.what);
        }
    }
    EXPECT_EQ(received, "noise");
    EXPECT_EQ(happened, std::vector<What>({What::Opened, What::Closed}));
}

TEST_F(Capture, NamesEachEndpointOfAManager)
{
    ASSERT_TRUE(file->open(path()));
    LinkCapture capture(file, QStringLiteral("osd://10.0.0.5"));
    LinkEvent event;
    event.kind = LinkEvent::Kind::Received;
    event.peer = QStringLiteral("10.0.0.6");
    event.port = 10001;
    capture.onEvent(event);
    event.peer.clear();
    capture.onEvent(event);
    file->close();
    const auto packets = capturedPackets(path());
    ASSERT_EQ(packets.size(), 2U);
    EXPECT_EQ(packets[0].link, "osd://10.0.0.6:10001");
    EXPECT_EQ(packets[1].link, "osd://10.0.0.5");
}

TEST_F(Capture, LosesNoneOf100000Replies)
{
    constexpr int burst = 100;
    constexpr quint64 replies = 100000;
    UdpPeer device;
    core_UDP link;
    begin(link, QStringLiteral("udp://127.0.0.1"));
    const auto counters = std::make_shared<LinkCounters>();
    link.addObserver(counters);
    link.setDeviceIP(QStringLiteral("127.0.0.1"));
    link.setPort(device.port());
    model_Protocoldata command;
    link.sendDatatoDevice(&command);
    device.receive();
    for (quint64 sent = 0; sent < replies;) {
        for (int i = 0; i < burst; ++i, ++sent) { // the system takes so many
            device.send(replyText(0x10, i));
        }
        ASSERT_TRUE(
            eventually([&] { return counters->events(LinkEvent::Kind::Received) == sent; }));
    }
    file->close();
    const auto packets = capturedPackets(path());
    const auto inFile = std::count_if(packets.begin(), packets.end(), [](const auto& packet) {
        return packet.what == What::Received;
    });
    EXPECT_EQ(file->dropped(), 0);
    EXPECT_EQ(static_cast<quint64>(inFile), replies);
}
