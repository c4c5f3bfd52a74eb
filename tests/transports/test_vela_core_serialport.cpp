// SPDX-License-Identifier: MIT
#include "vela_core_serialport.h"

#include "conformance.h"
#include "messagecapture.h"
#include "processstate.h"
#include "serialconformance.h"

namespace
{

class BinarySerialLink : public SerialLinkUnderTest<Vela_Core_SerialPort>
{
public:
    static QByteArray command(const model_Protocoldata& record)
    {
        QByteArray head;
        const auto size = static_cast<int>(record.arryDatablock.size());
        for (const int byte :
             {record.aux1 >> 8, record.aux1 & 0xff, int(record.ADDR), int(record.aux3),
              record.aux4 >> 8, record.aux4 & 0xff, record.aux5 >> 8, record.aux5 & 0xff,
              (size >> 8) & 0xff, size & 0xff, int(record.CMD), int(record.DAT1), int(record.DAT2),
              int(record.DAT3), int(record.DAT4)}) {
            head.append(static_cast<char>(byte));
        }
        head.append(replybytes::sumOf(head));
        return head + record.arryDatablock;
    }
    static QByteArray reply(int tag) { return replybytes::head(0, tag); }
    static QByteArray head(int tag, int length) { return replybytes::head(length, tag); }
    static QByteArray block(int length) { return replybytes::block(length); }
    static int tagOf(const model_Protocoldata& record) { return record.CMD; }
    static QByteArray handedOn(const QByteArray& block) { return block.left(block.size() - 1); }
    static constexpr bool showsLostBlocks = true;
};

} // namespace

INSTANTIATE_TYPED_TEST_SUITE_P(SecondSerial, LinkConformance, BinarySerialLink);
INSTANTIATE_TYPED_TEST_SUITE_P(SecondSerial, StreamLinkConformance, BinarySerialLink);

class VelaCoreSerialPortTest : public ::testing::Test
{
protected:
    VelaCoreSerialPortTest() { hostqueue::clear(); }

    BinarySerialLink link;
    MessageCapture capture;
};

TEST_F(VelaCoreSerialPortTest, SlotsInTheirOrder)
{
    EXPECT_EQ(ownMethods(Vela_Core_SerialPort::staticMetaObject), serialLineSlots());
    EXPECT_EQ(Vela_Core_SerialPort::staticMetaObject.superClass(), &ICoreBase::staticMetaObject);
}

TEST_F(VelaCoreSerialPortTest, EveryChunkIsShownWithThePortsName)
{
    ASSERT_TRUE(link.open());
    link.deliver("caf\xc3\xa9\n");
    const QString line = QStringLiteral("\"%1\" \"caf\u00e9\\n\"").arg(link.line.port().portName());
    EXPECT_TRUE(eventually([&] { return capture.count(line) == 1; }))
        << qPrintable(capture.lines().join(QLatin1Char('|')));
}

namespace
{

using Noting = NotingLine<Vela_Core_SerialPort>;

Noting* watched = nullptr;
QByteArray bufferedAtLine;

void noteBuffer(QtMsgType /*type*/, const QMessageLogContext& /*context*/, const QString& text)
{
    bufferedAtLine += watched->getBuffData(100) + '|' + text.toLatin1().right(4) + '|';
}

} // namespace

TEST_F(VelaCoreSerialPortTest, AChunkIsShownBeforeItIsBufferedAndNotWhileItIsDropped)
{
    const int threads = processstate::threads();
    SerialLinkUnderTest<Noting> own;
    bool wasRead = false; // by the line, which was connected first
    QObject::connect(&own.line.port(), &QSerialPort::readyRead, &own.line,
                     [&wasRead] { wasRead = true; });
    watched = &own.line;
    ASSERT_TRUE(own.open());
    own.line.setDealFlag(false); // what is buffered stays
    ASSERT_TRUE(eventually([threads] { return processstate::threads() == threads; }));
    qInstallMessageHandler(noteBuffer);
    own.deliver("abc");
    ASSERT_TRUE(eventually([&] { return own.line.getBuffData(10) == "abc"; }));
    own.line.drop(true);
    wasRead = false;
    own.deliver("xyz");
    ASSERT_TRUE(eventually([&wasRead] { return wasRead; }));
    own.line.drop(false);
    own.deliver("def");
    ASSERT_TRUE(eventually([&] { return own.line.getBuffData(10) == "abcdef"; }));
    EXPECT_EQ(bufferedAtLine, "|abc\"|abc|def\"|");
}

TEST_F(VelaCoreSerialPortTest, SendingByFeaturesIsSending)
{
    Noting own;
    model_Protocoldata record;
    own.sendDatatoDeviceByFeatures(&record);
    EXPECT_EQ(own.taken, &record);
}

TEST_F(VelaCoreSerialPortTest, OnlyCompleteRepliesAreStamped)
{
    link.line.setDeviceType(static_cast<model_GlobalEnum::DeviceType>(0x4711));
    ASSERT_TRUE(link.open());
    QByteArray corrupt = BinarySerialLink::block(9);
    corrupt[8] = static_cast<char>(corrupt[8] + 1);
    link.deliver(BinarySerialLink::head(1, 9) + corrupt + BinarySerialLink::head(2, 9) +
                 BinarySerialLink::block(9) + BinarySerialLink::reply(3));
    ASSERT_TRUE(eventually([] { return hostqueue::size() == 3; }));
    const auto records = hostqueue::records();
    EXPECT_TRUE(records[0].strKey2.isNull());
    EXPECT_EQ(records[0].bKeyFlag, 0);
    EXPECT_EQ(records[0].featureCode, 0);
    for (const std::size_t i : {1U, 2U}) {
        EXPECT_EQ(records[i].strKey2, link.line.port().portName());
        EXPECT_EQ(records[i].bKeyFlag, 1);
        EXPECT_EQ(records[i].featureCode, 0x4711);
    }
}

TEST_F(VelaCoreSerialPortTest, SendingLogsTheFrame)
{
    ASSERT_TRUE(link.open());
    model_Protocoldata record;
    record.aux1 = 0x4142;
    record.ADDR = 0x43;
    link.line.sendDatatoDeviceByFeatures(&record);
    link.line.sendDatatoDeviceForSysPlan(&record);
    EXPECT_EQ(capture.lines(), QStringList({QStringLiteral("Send successful"),
                                            QStringLiteral("\"Send data:ABC\"")}));
    EXPECT_EQ(hostqueue::logLines(), QStringList(QStringLiteral("Send successful:ABC")));
    EXPECT_TRUE(eventually([&] { return link.atDevice().size() >= 16; }));
    EXPECT_EQ(link.atDevice(), BinarySerialLink::command(record));
    EXPECT_EQ(record.aux6, 0);
}

TEST_F(VelaCoreSerialPortTest, ABlockOf65536BytesStaysAwayAndOneMoreIsSent)
{
    model_Protocoldata record;
    record.arryDatablock = QByteArray(65536, 'x');
    EXPECT_EQ(link.line.produceCmds(record).size(), 16);
    record.arryDatablock += 'y';
    const QByteArray frame = link.line.produceCmds(record);
    EXPECT_EQ(frame.size(), 16 + 65537);
    EXPECT_EQ(frame.mid(8, 2), QByteArray("\0\1", 2));
}

TEST_F(VelaCoreSerialPortTest, ALostPortLeavesTheParserToTheNextOpen)
{
    const int threads = processstate::threads();
    ASSERT_TRUE(link.open());
    link.line.handleError(QSerialPort::ResourceError);
    EXPECT_FALSE(link.line.port().isOpen());
    link.line.closeSerialPort();
    link.line.appendBuffData(BinarySerialLink::reply(1));
    ASSERT_TRUE(eventually([] { return hostqueue::size() == 1; }));
    ASSERT_TRUE(link.open());
    EXPECT_TRUE(eventually([threads] { return processstate::threads() == threads + 1; }));
    link.deliver(BinarySerialLink::reply(2));
    EXPECT_TRUE(eventually([] { return hostqueue::size() == 2; }));
}
