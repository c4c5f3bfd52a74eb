// SPDX-License-Identifier: MIT
#include "core_serialport.h"

#include "biz_cmdswork.h"
#include "conformance.h"
#include "messagecapture.h"
#include "processstate.h"
#include "serialconformance.h"
#include "shortest.h"
#include "textframes.h"
#include "threadrefusal.h"

#include <QEventLoop>
#include <QTimer>

#include <atomic>
#include <thread>

#include <unistd.h>

namespace
{

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

class TextSerialLink : public SerialLinkUnderTest<Core_SerialPort>, public TextFrames
{
};

} // namespace

INSTANTIATE_TYPED_TEST_SUITE_P(Serial, LinkConformance, TextSerialLink);
INSTANTIATE_TYPED_TEST_SUITE_P(Serial, StreamLinkConformance, TextSerialLink);

class CoreSerialPortTest : public ::testing::Test
{
protected:
    CoreSerialPortTest() { hostqueue::clear(); }

    bool threadsAreGone(int atMost)
    {
        return eventually([atMost] { return processstate::threads() <= atMost; });
    }

    bool openNoPort()
    {
        return link.line.openSerialPort(QStringLiteral("/dev/pts/99999"), QSerialPort::Baud9600,
                                        QSerialPort::OneStop, QSerialPort::NoParity,
                                        QSerialPort::NoFlowControl, QSerialPort::Data8);
    }

    // The parser has taken everything, and waits for a block if a head came last.
    bool parserTookAll()
    {
        return eventually([this] { return link.line.getBuffData(1).isEmpty(); });
    }

    void startBlockWait()
    {
        const std::size_t before = hostqueue::size();
        link.deliver(TextSerialLink::reply(1) + TextSerialLink::head(2, 50));
        ASSERT_TRUE(eventually([before] { return hostqueue::size() > before; }));
        ASSERT_TRUE(parserTookAll());
    }

    TextSerialLink link;
    const int threads = processstate::threads();
    MessageCapture capture;
};

TEST_F(CoreSerialPortTest, SlotsInTheirOrder)
{
    EXPECT_EQ(ownMethods(Core_SerialPort::staticMetaObject), serialLineSlots());
    EXPECT_EQ(Core_SerialPort::staticMetaObject.superClass(), &ICoreBase::staticMetaObject);
}

TEST_F(CoreSerialPortTest, RepliesCarryThePortsNameAndTheMarks)
{
    link.line.setDeviceType(static_cast<model_GlobalEnum::DeviceType>(0x4711));
    ASSERT_TRUE(link.open());
    link.deliver(TextSerialLink::reply(1) + TextSerialLink::head(2, 5) + TextSerialLink::block(5) +
                 replybytes::text(0x79, 0x0C));
    ASSERT_TRUE(eventually([] { return hostqueue::size() == 3; }));
    for (const auto& record : hostqueue::records()) {
        EXPECT_EQ(record.strKey2, link.line.port().portName());
        EXPECT_TRUE(record.strKey2.startsWith(QLatin1String("pts/")));
        EXPECT_EQ(record.bKeyFlag, 1);
        EXPECT_EQ(record.featureCode, 0x4711);
    }
}

TEST_F(CoreSerialPortTest, SettingsReachTheLine)
{
    ASSERT_TRUE(link.line.openSerialPort(link.peer.portName(), QSerialPort::Baud9600,
                                         QSerialPort::TwoStop, QSerialPort::EvenParity,
                                         QSerialPort::SoftwareControl, QSerialPort::Data7));
    const termios set = link.peer.settings();
    EXPECT_EQ(cfgetispeed(&set), speed_t(B9600));
    EXPECT_EQ(cfgetospeed(&set), speed_t(B9600));
    EXPECT_TRUE(set.c_cflag & CSTOPB);
    EXPECT_TRUE(set.c_iflag & IXON);
    const QSerialPort& port = link.line.port();
    EXPECT_EQ(port.stopBits(), QSerialPort::TwoStop);
    EXPECT_EQ(port.parity(), QSerialPort::EvenParity);
    EXPECT_EQ(port.flowControl(), QSerialPort::SoftwareControl);
    EXPECT_EQ(port.dataBits(), QSerialPort::Data7);
}

// 9600 is also what a port has that nobody told anything.
TEST_F(CoreSerialPortTest, EverySpeedReachesTheLineInBothDirections)
{
    const struct {
        QSerialPort::BaudRate asked;
        speed_t set;
    } speeds[] = {{QSerialPort::Baud1200, B1200},
                  {QSerialPort::Baud115200, B115200},
                  {QSerialPort::Baud9600, B9600},
                  {QSerialPort::Baud38400, B38400}};
    for (const auto& speed : speeds) {
        ASSERT_TRUE(link.line.openSerialPort(link.peer.portName(), speed.asked,
                                             QSerialPort::OneStop, QSerialPort::NoParity,
                                             QSerialPort::NoFlowControl, QSerialPort::Data8));
        const termios set = link.peer.settings();
        EXPECT_EQ(cfgetispeed(&set), speed.set);
        EXPECT_EQ(cfgetospeed(&set), speed.set);
    }
}

TEST_F(CoreSerialPortTest, SendingLogsTheFrame)
{
    ASSERT_TRUE(link.open());
    model_Protocoldata record;
    record.CMD = 0x10;
    record.arryDatablock = "block";
    record.featureCode = 0x3200;
    link.line.sendDatatoDeviceByFeatures(&record);
    const QString frame = QString::fromLatin1(TextSerialLink::command(record));
    EXPECT_EQ(capture.lines(),
              QStringList({QStringLiteral("Send successful"),
                           QStringLiteral("\"Send data:%1\"").arg(frame.left(19))}));
    EXPECT_EQ(hostqueue::logLines(), QStringList(QStringLiteral("Send successful:") + frame));
    EXPECT_TRUE(eventually([&] { return link.atDevice() == frame.toLatin1(); }));
    EXPECT_EQ(record.CHKSUM, 0); // the caller's record is its own
}

TEST_F(CoreSerialPortTest, OtherOperationsSendNothing)
{
    ASSERT_TRUE(link.open());
    model_Protocoldata record;
    link.line.sendDatatoDeviceForSysPlan(&record);
    link.line.sendDatatoDevice(nullptr);
    link.line.sendDatatoDeviceByFeatures(nullptr);
    ICoreBase& base = link.line;
    base.setDeviceIP(QStringLiteral("127.0.0.1"));
    base.setPort(1);
    base.closeUSB();
    EXPECT_FALSE(base.openUSB(0x04b4, 0x1008));
    EXPECT_TRUE(capture.lines().isEmpty());
    link.line.sendDatatoDevice(&record); // nothing came before it
    EXPECT_TRUE(eventually([&] { return link.atDevice().size() >= 19; }));
    EXPECT_EQ(link.atDevice(), TextSerialLink::command(record));
}

TEST_F(CoreSerialPortTest, AClosedPortLeavesNoDescriptor)
{
    const int descriptors = processstate::descriptors();
    for (int i = 0; i < 2; ++i) {
        EXPECT_TRUE(link.open());
        link.line.closeSerialPort();
        EXPECT_EQ(processstate::descriptors(), descriptors);
    }
}

TEST_F(CoreSerialPortTest, AClosedPortTakesNoFrame)
{
    model_Protocoldata record;
    link.line.sendDatatoDevice(&record);
    EXPECT_EQ(capture.lines(),
              QStringList(QStringLiteral("\"Send data:%1\"")
                              .arg(QString::fromLatin1(TextSerialLink::command(record)))));
    EXPECT_TRUE(hostqueue::logLines().isEmpty());
    ASSERT_TRUE(link.open());
    record.ADDR = 1;
    link.line.sendDatatoDevice(&record);
    ASSERT_TRUE(link.peer.awaitReceived(19));
    EXPECT_EQ(link.peer.received(), TextSerialLink::command(record)); // no earlier one
}

namespace
{

using Noting = NotingLine<Core_SerialPort>;

} // namespace

TEST_F(CoreSerialPortTest, SendingByFeaturesIsSending)
{
    Noting own;
    model_Protocoldata record;
    own.sendDatatoDeviceByFeatures(&record);
    EXPECT_EQ(own.taken, &record);
}

TEST_F(CoreSerialPortTest, SentTextsAreUtf8)
{
    ASSERT_TRUE(link.open());
    link.line.sendComData("\xc3\xa9!");
    EXPECT_EQ(hostqueue::logLines(), QStringList(QStringLiteral("Send successful:\u00e9!")));
}

TEST_F(CoreSerialPortTest, AClosedPortIsNotClosedAgain)
{
    QList<int> errors;
    const auto watch = [&errors](Core_SerialPort& line) {
        QObject::connect(&line.port(), &QSerialPort::errorOccurred, &line.port(),
                         [&errors](QSerialPort::SerialPortError error) {
                             if (error != QSerialPort::NoError) {
                                 errors << error;
                             }
                         });
    };
    {
        Core_SerialPort neverOpened;
        watch(neverOpened);
    }
    {
        TextSerialLink lost;
        watch(lost.line);
        ASSERT_TRUE(lost.open());
        lost.line.handleError(QSerialPort::ResourceError);
        ASSERT_TRUE(lost.open());
        lost.line.closeSerialPort();
        lost.line.closeSerialPort();
    }
    EXPECT_EQ(errors, QList<int>());
}

TEST_F(CoreSerialPortTest, TheBufferIsEmptiedBehindTheClosedPort)
{
    QByteArray atClosing;
    QObject::connect(&link.line.port(), &QIODevice::aboutToClose, &link.line, [&] {
        atClosing = link.line.getBuffData(10);
        link.line.appendBuffData("<Flate");
    });
    ASSERT_TRUE(link.open());
    link.line.appendBuffData("<F12");
    link.line.closeSerialPort();
    EXPECT_EQ(atClosing, "<F12");
    EXPECT_EQ(link.line.getBuffData(10), "");
    ASSERT_TRUE(link.open());
    link.line.appendBuffData("<F34");
    ASSERT_TRUE(link.open());
    EXPECT_EQ(atClosing, "<F34");
    EXPECT_EQ(link.line.getBuffData(10), "");
}

TEST_F(CoreSerialPortTest, ALostPortKeepsTheBuffer)
{
    ASSERT_TRUE(link.open());
    link.line.appendBuffData("<F12");
    link.line.handleError(QSerialPort::ResourceError);
    EXPECT_EQ(link.line.getBuffData(10), "<F12");
}

TEST_F(CoreSerialPortTest, OnlyWholeAndFailedWritesAreReported)
{
    const QByteArray tooLong(1024 * 1024, 'x'); // the line takes the beginning
    ASSERT_TRUE(link.open());
    link.line.sendComData(tooLong);
    link.line.closeSerialPort();
    EXPECT_TRUE(capture.lines().isEmpty());
    EXPECT_TRUE(hostqueue::logLines().isEmpty());
    ASSERT_TRUE(link.open());
    link.line.sendComData(tooLong);
    link.peer.hangUp();
    link.line.closeSerialPort();
    EXPECT_EQ(capture.lines(), QStringList(QStringLiteral("Send failed")));
    EXPECT_TRUE(hostqueue::logLines().isEmpty());
}

TEST_F(CoreSerialPortTest, BytesAreDroppedWhileTheBaseFlagIsClear)
{
    SerialLinkUnderTest<Noting> dropping;
    ASSERT_TRUE(dropping.open());
    dropping.line.drop(true);
    bool wasRead = false; // by the line, which was connected first
    QObject::connect(&dropping.line.port(), &QSerialPort::readyRead, &dropping.line,
                     [&wasRead] { wasRead = true; });
    dropping.deliver(TextSerialLink::reply(1));
    ASSERT_TRUE(eventually([&wasRead] { return wasRead; }));
    EXPECT_EQ(dropping.line.port().bytesAvailable(), 0);
    dropping.line.drop(false);
    dropping.deliver(TextSerialLink::reply(2));
    ASSERT_TRUE(eventually([] { return hostqueue::size() > 0; }));
    EXPECT_EQ(hostqueue::records().front().ADDR, 2);

    // Reopened with the flag clear: the open does not wait for the parser, which waits for a block,
    // and still there is one parser only. A busy machine may take its time now and then.
    std::size_t replies = 1;
    Clock::duration least = Clock::duration::max();
    for (int attempt = 0; attempt < 30 && least >= milliseconds(300); ++attempt) {
        dropping.line.drop(false);
        dropping.deliver(TextSerialLink::reply(3) + TextSerialLink::head(3, 50));
        ++replies;
        ASSERT_TRUE(eventually([&] { return hostqueue::size() == replies; }));
        ASSERT_TRUE(eventually([&] { return dropping.line.getBuffData(1).isEmpty(); }));
        dropping.line.drop(true);
        const auto start = Clock::now();
        ASSERT_TRUE(dropping.open());
        least = qMin(least, Clock::now() - start);
    }
    EXPECT_LT(least, milliseconds(300));
    dropping.line.drop(false);
    dropping.deliver(TextSerialLink::block(50) + TextSerialLink::reply(4));
    EXPECT_TRUE(eventually([&] { return hostqueue::size() == replies + 1; }));
    EXPECT_EQ(hostqueue::records().back().ADDR, 4);
}

TEST_F(CoreSerialPortTest, ClearQueueEmptiesTheHostsQueue)
{
    link.line.addToReceivedQueue(model_Protocoldata());
    {
        const std::lock_guard hostIsBusy(biz_CMDSWork::receiveHexCmdlock);
        link.line.clearQueue(); // does not wait
    }
    EXPECT_TRUE(eventually([] { return hostqueue::size() == 0; }));
}

TEST_F(CoreSerialPortTest, APortThatDoesNotExistFails)
{
    EXPECT_FALSE(openNoPort());
    EXPECT_FALSE(link.line.port().isOpen());
    EXPECT_EQ(processstate::threads(), threads);
    EXPECT_TRUE(capture.lines().isEmpty());
    link.line.closeSerialPort();
}

TEST_F(CoreSerialPortTest, AFailedReopenLeavesNothingOpen)
{
    ASSERT_TRUE(link.open());
    link.line.appendBuffData("<F");
    EXPECT_FALSE(openNoPort());
    EXPECT_FALSE(link.line.port().isOpen());
    EXPECT_TRUE(threadsAreGone(threads));
    EXPECT_TRUE(link.line.getBuffData(10).isEmpty());
}

TEST_F(CoreSerialPortTest, ARefusedParserIsAFailedOpen)
{
    {
        const ThreadRefusal refusal;
        EXPECT_FALSE(link.open());
    }
    EXPECT_FALSE(link.line.port().isOpen());
    link.line.closeSerialPort();
    ASSERT_TRUE(link.open());
    link.deliver(TextSerialLink::reply(1));
    EXPECT_TRUE(eventually([] { return hostqueue::size() == 1; }));
}

TEST_F(CoreSerialPortTest, OpenTwiceReopensWithTheNewSettings)
{
    ASSERT_TRUE(link.open());
    ASSERT_TRUE(link.open(QSerialPort::Baud9600));
    const termios set = link.peer.settings();
    EXPECT_EQ(cfgetospeed(&set), speed_t(B9600));
    EXPECT_TRUE(threadsAreGone(threads + 1)); // one parser
    link.deliver(TextSerialLink::reply(1));
    EXPECT_TRUE(eventually([] { return hostqueue::size() == 1; }));
}

TEST_F(CoreSerialPortTest, OpenAndCloseInAnyRhythm)
{
    for (int i = 0; i < 30; ++i) {
        ASSERT_TRUE(link.open());
        if (i % 3 == 0) {
            ASSERT_TRUE(link.open());
        }
        link.line.closeSerialPort();
        EXPECT_FALSE(link.line.port().isOpen());
    }
    EXPECT_TRUE(threadsAreGone(threads));
}

TEST_F(CoreSerialPortTest, ClosingTakesABlockWaitAtMost)
{
    ASSERT_TRUE(link.open());
    startBlockWait();
    const auto start = Clock::now();
    link.line.closeSerialPort();
    // 600 ms, and what a busy machine adds to each look for the block.
    EXPECT_LT(Clock::now() - start, std::chrono::seconds(60));
    EXPECT_TRUE(threadsAreGone(threads));
    EXPECT_EQ(hostqueue::size(), 1U);
}

TEST_F(CoreSerialPortTest, ClosingWithTheHostsQueueLockedTakesASecond)
{
    std::size_t kept = 0;
    const auto took = shortest(5000, [&] {
        ++kept;
        EXPECT_TRUE(link.open());
        const std::lock_guard hostIsBusy(biz_CMDSWork::receiveHexCmdlock);
        link.line.appendBuffData(replybytes::text(0x79, 0x0C));
        EXPECT_TRUE(parserTookAll());
        std::atomic<bool> isClosed{false};
        std::thread other([&] {
            while (!isClosed) {
                link.line.setDeviceType(model_GlobalEnum::DeviceUnknown);
                std::this_thread::sleep_for(milliseconds(1));
            }
        });
        const long waits = processstate::waits(getpid());
        const qint64 time = elapsed([&] { link.line.closeSerialPort(); });
        isClosed = true;
        other.join();
        EXPECT_GT(processstate::waits(getpid()) - waits,
                  10); // it looks again every few milliseconds
        return time;
    });
    EXPECT_LT(took, 5000);
    EXPECT_GE(took, 900);
    ASSERT_TRUE(link.open());
    link.deliver(TextSerialLink::reply(2));
    EXPECT_TRUE(eventually([&] { return hostqueue::size() == kept + 1; }));
}

TEST_F(CoreSerialPortTest, AHangUpClosesThePortAndTheProcessIsIdle)
{
    QObject::connect(&link.line.port(), &QSerialPort::errorOccurred, &link.line,
                     &Core_SerialPort::handleError);
    const auto log = std::make_shared<EventLog>();
    link.line.addObserver(log);
    ASSERT_TRUE(link.open());
    startBlockWait();
    link.peer.hangUp();
    ASSERT_TRUE(eventually([this] { return !link.line.port().isOpen(); }));
    EXPECT_EQ(log->all(EventLog::Kind::Lost).size(), 1U);
    EXPECT_EQ(log->all(EventLog::Kind::Closed).size(), 0U);
    const auto start = Clock::now();
    const double before = processstate::cpuSeconds();
    QEventLoop idle; // sleeps until something happens
    QTimer::singleShot(milliseconds(1000), &idle, &QEventLoop::quit);
    idle.exec();
    const std::chrono::duration<double> took = Clock::now() - start;
    EXPECT_LT(processstate::cpuSeconds() - before, 0.5 * took.count());
}

TEST_F(CoreSerialPortTest, AHangUpThatNobodyWatchesCostsTheLibraryNothing)
{
    int errors = 0;
    QObject::connect(&link.line.port(), &QSerialPort::errorOccurred, &link.line,
                     [&errors] { ++errors; });
    ASSERT_TRUE(link.open());
    link.peer.hangUp();
    ASSERT_TRUE(eventually([&errors] { return errors > 1000; }));
    EXPECT_TRUE(link.line.port().isOpen());
    EXPECT_TRUE(link.line.getBuffData(1).isEmpty());
    EXPECT_TRUE(capture.lines().isEmpty());
    EXPECT_TRUE(hostqueue::logLines().isEmpty());
    link.line.closeSerialPort();
    EXPECT_TRUE(threadsAreGone(threads));
}

TEST_F(CoreSerialPortTest, OnlyAResourceErrorClosesThePort)
{
    link.line.handleError(QSerialPort::ResourceError); // closed: nothing to do
    ASSERT_TRUE(link.open());
    for (int error = QSerialPort::NoError; error <= QSerialPort::NotOpenError; ++error) {
        if (error != QSerialPort::ResourceError) {
            link.line.handleError(static_cast<QSerialPort::SerialPortError>(error));
        }
    }
    EXPECT_TRUE(link.line.port().isOpen());
    link.line.handleError(QSerialPort::ResourceError);
    EXPECT_FALSE(link.line.port().isOpen());
}

TEST_F(CoreSerialPortTest, ALostPortLeavesTheParserToTheNextOpen)
{
    ASSERT_TRUE(link.open());
    link.line.handleError(QSerialPort::ResourceError);
    link.line.closeSerialPort(); // the port is closed already: nothing happens
    EXPECT_TRUE(eventually([this] { return processstate::threads() == threads + 1; }));
    link.line.appendBuffData(replybytes::text(0x79, 0x0C));
    ASSERT_TRUE(eventually([] { return hostqueue::size() == 1; }));

    link.line.appendBuffData(TextSerialLink::head(2, 50));
    ASSERT_TRUE(parserTookAll());
    link.line.appendBuffData(TextSerialLink::block(50).left(20));
    ASSERT_TRUE(link.open());
    EXPECT_TRUE(threadsAreGone(threads + 1));
    link.deliver(TextSerialLink::block(50).mid(20) + TextSerialLink::reply(3));
    EXPECT_TRUE(eventually([] { return hostqueue::size() == 2; }));
    EXPECT_EQ(hostqueue::records().back().ADDR, 3);
}

TEST_F(CoreSerialPortTest, ALostPortThatStaysAwayLeavesNoParser)
{
    ASSERT_TRUE(link.open());
    link.line.handleError(QSerialPort::ResourceError);
    link.line.appendBuffData("<F");
    // Not a port that has hung up: another process may get its number meanwhile.
    EXPECT_FALSE(openNoPort());
    EXPECT_TRUE(threadsAreGone(threads));
    EXPECT_TRUE(link.line.getBuffData(10).isEmpty());
}

TEST_F(CoreSerialPortTest, DestructionInEveryState)
{
    for (int state = 0; state < 6; ++state) {
        SerialPeer peer;
        auto line = std::make_unique<Core_SerialPort>();
        const auto open = [&] {
            return line->openSerialPort(peer.portName(), QSerialPort::Baud115200,
                                        QSerialPort::OneStop, QSerialPort::NoParity,
                                        QSerialPort::NoFlowControl, QSerialPort::Data8);
        };
        if (state > 0) {
            ASSERT_TRUE(open());
        }
        switch (state) {
        case 2:
            line->handleError(QSerialPort::ResourceError);
            break;
        case 3:
            line->closeSerialPort();
            break;
        case 4:
            line->appendBuffData(TextSerialLink::head(2, 50));
            ASSERT_TRUE(eventually([&] { return line->getBuffData(1).isEmpty(); }));
            break;
        case 5:
            ASSERT_TRUE(peer.send(QByteArray(2000, '<')));
            line->clearQueue();
            break;
        default:
            break;
        }
        line.reset();
        EXPECT_TRUE(threadsAreGone(threads)) << state;
    }
}

TEST_F(CoreSerialPortTest, DestructionUnderLoad)
{
    for (int i = 0; i < 10; ++i) {
        auto own = std::make_unique<TextSerialLink>();
        ASSERT_TRUE(own->open());
        own->deliver(TextSerialLink::reply(1) + TextSerialLink::head(2, 9) +
                     TextSerialLink::block(9) + TextSerialLink::reply(3));
        eventually([] { return false; }, milliseconds(i));
    }
    EXPECT_TRUE(threadsAreGone(threads));
}

TEST_F(CoreSerialPortTest, ASilentLineIsIdle)
{
    ASSERT_TRUE(link.open());
    eventually([] { return false; }, milliseconds(100));
    const double before = processstate::cpuSeconds();
    std::this_thread::sleep_for(milliseconds(1000));
    EXPECT_LT(processstate::cpuSeconds() - before, 0.3); // measured exactly by the benchmark
}
