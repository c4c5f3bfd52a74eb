// SPDX-License-Identifier: MIT
#include "tests/transports/udppeer.h"
#include "udpsimulator.h"

#include <gtest/gtest.h>

#include <QElapsedTimer>

namespace
{

const QByteArray plainCommand = "<T5a0110020000006d>";
const QByteArray plainReply = "<F5a0110020000006d>";
const QByteArray blockCommand = "<T5a018b05000000eb>"; // its reply has a block of 145 bytes
const QByteArray blockReply = "<F5a018b050091007c>";

/// A simulated device and a host that talks to it, both on loopback.
class UdpSimulation : public ::testing::Test
{
protected:
    void start(const char* fault = nullptr)
    {
        SimulatedDevice::Settings settings;
        if (fault != nullptr) {
            ASSERT_EQ(settings.faults.parse(QLatin1String(fault)), QString());
        }
        simulator = std::make_unique<UdpSimulator>(QHostAddress(QHostAddress::LocalHost),
                                                   quint16(0), settings);
        ASSERT_TRUE(simulator->open()) << simulator->error().toStdString();
        port = simulator->address().section(QLatin1Char(':'), -1).toUShort();
        QObject::connect(simulator.get(), &SimulatedLink::exchanged,
                         [this](const Exchange&) { ++exchanges; });
    }

    void command(const QByteArray& bytes) { host.send(bytes, port); }

    QByteArray next() { return host.receive().bytes; }

    // Nothing more comes: the device has answered everything, and loopback delivers at once.
    bool silent(int commands)
    {
        return eventually([&] { return exchanges == commands && simulator->isIdle(); }) &&
               !host.hasDatagram();
    }

    UdpPeer host;
    std::unique_ptr<UdpSimulator> simulator;
    quint16 port = 0;
    int exchanges = 0;
};

TEST_F(UdpSimulation, AnswersToWhereTheCommandCameFrom)
{
    start();
    UdpPeer otherHost;
    otherHost.send(plainCommand, port);
    const auto reply = otherHost.receive();
    EXPECT_EQ(reply.bytes, plainReply);
    EXPECT_EQ(reply.port, port);
    EXPECT_TRUE(silent(1));
    command(blockCommand);
    EXPECT_EQ(next(), blockReply);
    EXPECT_EQ(next().size(), 145);
    EXPECT_TRUE(silent(2));
    EXPECT_FALSE(otherHost.hasDatagram());
}

TEST_F(UdpSimulation, IgnoresWhatIsNoCommand)
{
    start();
    for (const QByteArray& noise : {QByteArray(), QByteArray("<"), plainReply,
                                    QByteArray("<T5a0110020000006e>"), QByteArray(9000, 'x')}) {
        command(noise);
    }
    command(plainCommand);
    EXPECT_EQ(next(), plainReply);
    EXPECT_TRUE(silent(1));
    EXPECT_EQ(simulator->noise(), 1 + 19 + 19 + 9000);
}

TEST_F(UdpSimulation, AnswersALongFrameOnceItIsWhole)
{
    start();
    const QByteArray block(1200, 'b');
    const QByteArray frame = "<T5a0110020000b004" + QByteArray("21>") + block;
    const QByteArray head = QByteArray::fromHex("5a01100200b004");
    const QByteArray whole = "<T" + head.toHex() +
                             QByteArray(1, static_cast<char>(devicecodec::checksum(head))).toHex() +
                             ">" + block;
    command(whole.left(540));
    command(whole.mid(540, 540));
    command(whole.mid(1080));
    EXPECT_TRUE(next().startsWith("<F5a01100200b004"));
    EXPECT_TRUE(silent(1));
}

TEST_F(UdpSimulation, AnswersALongFrameWhoseEndIsLost)
{
    start();
    const QByteArray head = QByteArray::fromHex("5a01100200b004");
    command("<T" + head.toHex() +
            QByteArray(1, static_cast<char>(devicecodec::checksum(head))).toHex() + ">" +
            QByteArray(521, 'b'));
    EXPECT_TRUE(next().startsWith("<F5a01100200b004"));
    EXPECT_TRUE(silent(1));
}

TEST_F(UdpSimulation, DropsOnTheWire)
{
    start("drop=1");
    command(plainCommand);
    EXPECT_TRUE(silent(1));
    command(plainCommand);
    EXPECT_EQ(next(), plainReply);
}

TEST_F(UdpSimulation, DuplicatesOnTheWire)
{
    start("duplicate=1");
    command(plainCommand);
    EXPECT_EQ(next(), plainReply);
    EXPECT_EQ(next(), plainReply);
    EXPECT_TRUE(silent(1));
}

TEST_F(UdpSimulation, DelaysOneAnswerAndNotTheNext)
{
    start("delay=1:300");
    QElapsedTimer clock;
    clock.start();
    command(plainCommand);
    command(blockCommand);
    EXPECT_EQ(next(), blockReply);
    EXPECT_EQ(next().size(), 145);
    EXPECT_EQ(next(), plainReply);
    EXPECT_GE(clock.elapsed(), 300);
    EXPECT_TRUE(silent(2));
}

TEST_F(UdpSimulation, SpoilsTheReplyOnTheWire)
{
    start("wrong-checksum=1");
    command(plainCommand);
    EXPECT_EQ(next(), QByteArray("<F5a0110020000006e>"));
    start("truncate=1:4");
    command(plainCommand);
    EXPECT_EQ(next(), plainReply.left(15));
    start("oversize=1:2");
    command(plainCommand);
    EXPECT_EQ(next(), plainReply + QByteArray(2, '\0'));
}

TEST_F(UdpSimulation, SpoilsTheBlockOnTheWire)
{
    start("block-first=1");
    command(blockCommand);
    EXPECT_EQ(next().size(), 145);
    EXPECT_EQ(next(), blockReply);
    start("short-block=1:3");
    command(blockCommand);
    EXPECT_EQ(next(), blockReply);
    EXPECT_EQ(next().size(), 142);
    start("long-block=1:3");
    command(blockCommand);
    EXPECT_EQ(next(), blockReply);
    EXPECT_EQ(next().size(), 148);
}

TEST_F(UdpSimulation, SendsGarbageFirst)
{
    start("garbage=1:77");
    command(plainCommand);
    EXPECT_EQ(next().size(), 77);
    EXPECT_EQ(next(), plainReply);
    EXPECT_TRUE(silent(1));
}

TEST_F(UdpSimulation, FloodsAndStillServes)
{
    start("flood=1:2000");
    command(plainCommand);
    command(blockCommand);
    int floods = 0;
    bool served = false;
    while (floods < 2000) {
        const QByteArray bytes = next();
        ASSERT_FALSE(bytes.isEmpty());
        floods += bytes == plainReply ? 1 : 0;
        served = served || (bytes == blockReply && floods < 2000);
    }
    EXPECT_TRUE(served) << "the next answer does not wait for the flood's end";
    EXPECT_TRUE(eventually([this] { return simulator->isIdle(); }));
    EXPECT_EQ(simulator->bytesSent(), 2000 * 19 + 19 + 145);
}

TEST_F(UdpSimulation, SaysWhyItCannotOpen)
{
    UdpSimulator taken(QHostAddress(QHostAddress::LocalHost), host.port(), {});
    EXPECT_FALSE(taken.open());
    EXPECT_TRUE(taken.error().contains(QStringLiteral("is taken"))) << taken.error().toStdString();
    UdpSimulator foreign(QHostAddress(QStringLiteral("203.0.113.7")), 0, {});
    EXPECT_FALSE(foreign.open());
    EXPECT_TRUE(foreign.error().contains(QStringLiteral("does not have that address")));
}

TEST_F(UdpSimulation, MayBeDestroyedWithAnswersOnTheirWay)
{
    start("delay=1:60000");
    command(plainCommand);
    ASSERT_TRUE(eventually([this] { return exchanges == 1; }));
    EXPECT_FALSE(simulator->isIdle());
    simulator.reset();
    QCoreApplication::processEvents();
    EXPECT_FALSE(host.hasDatagram());
}

} // namespace
