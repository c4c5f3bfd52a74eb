// SPDX-License-Identifier: MIT
// Bytes that are sent as they are, over every link.
#include "osdpeer.h"
#include "tests/transports/serialpeer.h"
#include "udptool.h"
#ifdef CORE_MANAGE_SHOWS_USB
#include "emulatedhid.h"
#endif

namespace
{

const QByteArray bytes = QByteArray::fromHex("00ff3c5400010203040506");

ToolRun sendRaw(const QString& link)
{
    return ToolRun({QStringLiteral("send"), link, QStringLiteral("--raw"),
                    QString::fromLatin1(bytes.toHex(' ')), QStringLiteral("--timeout"),
                    QStringLiteral("0"), QStringLiteral("--json")});
}

class RawBytes : public UdpTool
{
};

TEST_F(RawBytes, GoOutAsOneDatagramAndAreAnswered)
{
    const auto tool = send("--raw 3C54:00ff --timeout 60000");
    EXPECT_EQ(device.receive().bytes, QByteArray("<T\0\xff", 4));
    device.send(replyText(0x10, 0x20));
    EXPECT_EQ(tool->exitCode(), 0) << tool->error().toStdString();
    EXPECT_EQ(tool->lines().value(0), QStringLiteral("sent 3c 54 00 ff"));
    EXPECT_TRUE(tool->lines().value(1).contains(QLatin1String("CMD 10 DAT1 20")));
    EXPECT_FALSE(device.hasDatagram());
}

TEST_F(RawBytes, AreShownInJsonAsTheFrame)
{
    const ToolRun run = sendRaw(address());
    EXPECT_EQ(run.code, 0) << run.error.toStdString();
    EXPECT_EQ(device.receive().bytes, bytes);
    EXPECT_EQ(run.json.value(QStringLiteral("sent")).toObject(),
              (QJsonObject{{QStringLiteral("frame"), QString::fromLatin1(bytes.toHex())}}));
}

TEST_F(RawBytes, MayBeAFile)
{
    QTemporaryDir directory;
    QFile file(directory.filePath(QStringLiteral("raw")));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(QByteArray(541, '\x80'));
    file.close();
    const auto tool = send(
        QStringLiteral("--raw @%1 --timeout 0").arg(file.fileName()).toLocal8Bit().constData());
    EXPECT_EQ(tool->exitCode(), 0) << tool->error().toStdString();
    EXPECT_EQ(device.receive().bytes, QByteArray(540, '\x80')) << "as much as a datagram holds";
    EXPECT_EQ(device.receive().bytes, QByteArray(1, '\x80'));
}

TEST(RawBytesSerial, GoOutOnBothSerialLinks)
{
    for (const char* scheme : {"serial", "vela"}) {
        SerialPeer device;
        const ToolRun run =
            sendRaw(QStringLiteral("%1://%2").arg(QLatin1String(scheme), device.portName()));
        EXPECT_EQ(run.code, 0) << run.error.toStdString();
        EXPECT_EQ(device.received(), bytes) << scheme;
    }
}

TEST(RawBytesOsd, GoOutFromEightOn)
{
    OsdPeer endpoint("127.0.0.1");
    ToolProcess tool({QStringLiteral("send"), endpoint.link(), QStringLiteral("--raw"),
                      QString::fromLatin1(bytes.toHex()), QStringLiteral("--timeout"),
                      QStringLiteral("60000")});
    EXPECT_EQ(endpoint.receive(bytes.size()), bytes);
    endpoint.answer("OK!");
    EXPECT_EQ(tool.exitCode(), 0) << tool.error().toStdString();
    const ToolRun tooFew(
        {QStringLiteral("send"), endpoint.link(), QStringLiteral("--raw"), QStringLiteral("00")});
    EXPECT_EQ(tooFew.code, 2);
    EXPECT_TRUE(tooFew.error.contains(QLatin1String("(expected at least 8 bytes on osd://)")))
        << tooFew.error.toStdString();
}

#ifdef CORE_MANAGE_SHOWS_USB
TEST(RawBytesUsb, GoOutInAReport)
{
    HidTestbed testbed;
    EmulatedHid device(testbed, 0x04b4, 0x1008);
    const ToolRun run = sendRaw(QStringLiteral("usb://04b4:1008"));
    EXPECT_EQ(run.code, 0) << run.error.toStdString();
    EXPECT_EQ(device.written(),
              std::vector<QByteArray>{QByteArray(1, '\0') + bytes.leftJustified(64, '\0')});
}
#endif

} // namespace
