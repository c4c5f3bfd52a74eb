// SPDX-License-Identifier: MIT
#include "core_serialport.h"
#include "eventlog.h"
#include "eventually.h"
#include "hostqueue.h"
#include "ptysimulator.h"
#include "vela_core_serialport.h"

#include <gtest/gtest.h>

#include <QFileInfo>
#include <QTemporaryDir>

namespace
{

template <class Line>
bool openLine(Line& line, const QString& address)
{
    return line.openSerialPort(address.section(QStringLiteral("://"), 1), QSerialPort::Baud115200,
                               QSerialPort::OneStop, QSerialPort::NoParity,
                               QSerialPort::NoFlowControl, QSerialPort::Data8);
}

bool queued(std::size_t count)
{
    return eventually([count] { return hostqueue::size() >= count; }) && hostqueue::size() == count;
}

} // namespace

/// A serial line with a simulated device at its other end.
class PtySimulation : public ::testing::Test
{
protected:
    PtySimulation() { hostqueue::clear(); }

    void start(const char* fault = nullptr, const QString& path = QString())
    {
        SimulatedDevice::Settings settings;
        if (fault != nullptr) {
            ASSERT_EQ(settings.faults.parse(QLatin1String(fault)), QString());
        }
        simulator = std::make_unique<PtySimulator>(QStringLiteral("serial"), path, settings);
        ASSERT_TRUE(simulator->open()) << simulator->error().toStdString();
        QObject::connect(simulator.get(), &SimulatedLink::lost, [this] { isLost = true; });
        QObject::connect(&line.port(), &QSerialPort::errorOccurred, &line,
                         &Core_SerialPort::handleError);
        ASSERT_TRUE(openLine(line, simulator->address()));
    }

    void send(int command, int subCode = 0, int blockLength = 0)
    {
        model_Protocoldata record;
        record.CMD = static_cast<quint8>(command);
        record.DAT1 = static_cast<quint8>(subCode);
        record.DAT3 = static_cast<quint8>(blockLength);
        line.sendDatatoDevice(&record);
    }

    std::unique_ptr<PtySimulator> simulator;
    Core_SerialPort line;
    bool isLost = false;
};

TEST_F(PtySimulation, AnswersWithReplyAndBlock)
{
    start();
    send(0x10);
    send(0x8b, 0x05);
    ASSERT_TRUE(queued(2));
    EXPECT_EQ(hostqueue::records()[0].CMD, 0x10);
    EXPECT_EQ(hostqueue::records()[1].arryDatablock.size(), 145);
}

TEST_F(PtySimulation, AnswersInBinary)
{
    SimulatedDevice::Settings settings;
    settings.framing = devicecodec::Framing::Binary;
    PtySimulator device(QStringLiteral("vela"), QString(), settings);
    ASSERT_TRUE(device.open());
    EXPECT_TRUE(device.address().startsWith(QLatin1String("vela:///dev/pts/")));
    Vela_Core_SerialPort host;
    ASSERT_TRUE(openLine(host, device.address()));
    model_Protocoldata record;
    record.CMD = 0x31;
    record.DAT3 = 10;
    host.sendDatatoDevice(&record);
    ASSERT_TRUE(queued(1));
    EXPECT_EQ(hostqueue::records()[0].CMD, 0x31);
    EXPECT_EQ(hostqueue::records()[0].arryDatablock.size(), 9);
}

TEST_F(PtySimulation, SplitAnswersArriveWhole)
{
    start("split=100%");
    const auto log = std::make_shared<EventLog>();
    line.addObserver(log);
    // The host gives up a block of which nothing comes for 600 ms, and a busy machine may keep the
    // simulator from sending its next piece for as long: then it asks again.
    const auto givenUp = [&log] {
        return log->all(LinkEvent::Kind::Refused, LinkEvent::Check::BlockMissing).size();
    };
    constexpr std::size_t mostTries = 20;
    for (std::size_t tries = 0; tries < mostTries && hostqueue::size() == 0; ++tries) {
        send(0xf1, 0x41, 6);
        ASSERT_TRUE(eventually([&] { return hostqueue::size() == 1 || givenUp() > tries; }));
        ASSERT_TRUE(eventually([this] { return simulator->isIdle(); }));
    }
    ASSERT_TRUE(queued(1));
    EXPECT_EQ(hostqueue::records()[0].CMD, 0xf1);
    EXPECT_EQ(hostqueue::records()[0].arryDatablock.size(), 6);
}

TEST_F(PtySimulation, GluedAnswersArriveApart)
{
    start("glue=2");
    send(0x10);
    send(0x11);
    ASSERT_TRUE(queued(2)); // the second one waits for silence
    EXPECT_EQ(hostqueue::records()[0].CMD, 0x10);
    EXPECT_EQ(hostqueue::records()[1].CMD, 0x11);
}

TEST_F(PtySimulation, NoiseInsideAReplyCostsThatReply)
{
    start("noise=1");
    send(0x10);
    ASSERT_TRUE(eventually([this] { return simulator->bytesSent() == 23; }));
    send(0x11);
    ASSERT_TRUE(eventually([] { return hostqueue::size() == 1; }));
    EXPECT_EQ(hostqueue::records()[0].CMD, 0x11);
}

TEST_F(PtySimulation, ALateBlockCostsItsReply)
{
    start("late-block=1:8000"); // on a busy machine the host waits longer
    send(0x8b, 0x05);
    ASSERT_TRUE(eventually([this] { return simulator->bytesSent() > 100; }));
    send(0x10);
    ASSERT_TRUE(eventually([] { return hostqueue::size() == 1; }));
    EXPECT_EQ(hostqueue::records()[0].CMD, 0x10);
}

TEST_F(PtySimulation, AHangUpCostsItsReplyAndThePortComesBackByName)
{
    const QTemporaryDir directory;
    const QString path = directory.filePath(QStringLiteral("port"));
    start("hang-up=1", path);
    EXPECT_EQ(simulator->address(), QStringLiteral("serial://") + path);
    send(0x8b, 0x05);
    ASSERT_TRUE(eventually([this] { return !line.port().isOpen(); }));
    ASSERT_TRUE(eventually([&] { return openLine(line, simulator->address()); }));
    send(0x10);
    ASSERT_TRUE(queued(1));
    EXPECT_EQ(hostqueue::records()[0].CMD, 0x10);
    EXPECT_FALSE(isLost);
    simulator.reset();
    EXPECT_FALSE(QFileInfo(path).isSymLink());
}

TEST_F(PtySimulation, AHangUpWithoutANameIsTheEnd)
{
    start("hang-up=1");
    send(0x10);
    EXPECT_TRUE(eventually([this] { return isLost && !line.port().isOpen(); }));
}

TEST_F(PtySimulation, ANameThatAKilledProcessLeftIsTaken)
{
    const QTemporaryDir directory;
    const QString path = directory.filePath(QStringLiteral("port"));
    ASSERT_TRUE(QFile::link(QStringLiteral("/dev/pts/999999"), path));
    start(nullptr, path);
    send(0x10);
    ASSERT_TRUE(queued(1));
    const QString other = directory.filePath(QStringLiteral("other"));
    ASSERT_TRUE(QFile::link(QStringLiteral("/no/such/port"), other));
    PtySimulator device(QStringLiteral("serial"), other, {});
    EXPECT_FALSE(device.open());
    EXPECT_TRUE(QFileInfo(other).isSymLink());
}

TEST_F(PtySimulation, ANameThatLeadsToTheNewTerminalIsTaken)
{
    const QTemporaryDir directory;
    const QString path = directory.filePath(QStringLiteral("port"));
    // The system gives the same number again unless another process has taken it meanwhile.
    EXPECT_TRUE(eventually([&path] {
        auto killed = std::make_unique<PtySimulator>(QStringLiteral("serial"), path,
                                                     SimulatedDevice::Settings{});
        EXPECT_TRUE(killed->open());
        const QString terminal = QFileInfo(path).symLinkTarget();
        killed.reset();
        EXPECT_TRUE(QFile::link(terminal, path));
        PtySimulator next(QStringLiteral("serial"), path, SimulatedDevice::Settings{});
        const bool opened = next.open();
        QFile::remove(path);
        return opened;
    }));
}

TEST_F(PtySimulation, APathThatExistsIsLeftAlone)
{
    const QTemporaryDir directory;
    PtySimulator device(QStringLiteral("serial"), directory.path(), {});
    EXPECT_FALSE(device.open());
    EXPECT_TRUE(device.error().contains(QLatin1String("exists")));
    EXPECT_TRUE(QFileInfo(directory.path()).isDir());
}
