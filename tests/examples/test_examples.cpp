// SPDX-License-Identifier: MIT
#include "exampledevice.h"

#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>

namespace
{

ToolRun run(const char* name, const QStringList& arguments, const QStringList& environment = {})
{
    return ToolRun(arguments, {}, example(name, environment));
}

TEST(UdpExample, ShowsTheReplyWithItsBlock)
{
    const ExampleDevice device("udp://127.0.0.1:0");
    const ToolRun host = run("udp", {"127.0.0.1", device.port()});
    EXPECT_EQ(host.code, 0);
    EXPECT_EQ(host.output, "127.0.0.1 replied with 145 bytes\n");
    EXPECT_EQ(host.error, QString()) << "the debug lines are off";
}

TEST(UdpExample, ShowsDebugLinesWhenToldTo)
{
    const ExampleDevice device("udp://127.0.0.1:0");
    const ToolRun host =
        run("udp", {"127.0.0.1", device.port()}, {"QT_LOGGING_RULES=default.debug=true"});
    EXPECT_EQ(host.code, 0);
    EXPECT_TRUE(host.error.contains("Send data:<T00008b0500000090>")) << host.error.toStdString();
}

TEST(UdpExample, GivesUpWithoutReply)
{
    const ExampleDevice device("udp://127.0.0.1:0", "--fault drop=1");
    const ToolRun host = run("udp", {"127.0.0.1", device.port()});
    EXPECT_EQ(host.code, 1);
    EXPECT_EQ(host.error, QString("no reply\n"));
}

TEST(SerialExample, PollsUntilTheDeviceHasGone)
{
    ExampleDevice device("serial://");
    const QString port = device.address().section("://", 1);
    ToolProcess host({port}, {}, example("serial"));
    EXPECT_TRUE(host.says(port.section("/dev/", 1) + " replied\n"));
    device.unplug();
    EXPECT_EQ(host.exitCode(), 0);
    EXPECT_EQ(host.lines().last(), QString("the device has gone"));
}

TEST(SerialExample, SaysWhyAPortCannotBeOpened)
{
    const ToolRun host = run("serial", {"/nowhere/port"});
    EXPECT_EQ(host.code, 1);
    EXPECT_TRUE(host.error.startsWith("/nowhere/port: ")) << host.error.toStdString();
}

TEST(SecondSerialExample, ShowsTheReplyWithItsBlock)
{
    ExampleDevice device("vela://");
    const QString port = device.address().section("://", 1);
    const ToolRun host = run("secondserial", {port});
    EXPECT_EQ(host.code, 0) << host.error.toStdString();
    EXPECT_EQ(host.output, (port.section("/dev/", 1) + " replied with 15 bytes\n").toUtf8())
        << "the checksum is no part of the block";
    const auto commands = device.commands();
    ASSERT_EQ(commands.size(), 1U);
    EXPECT_EQ(commands[0].value("block").toString(), QString("736574706f696e74"));
}

TEST(SecondSerialExample, TellsAReplyWithoutItsBlock)
{
    const ExampleDevice device("vela://", "--fault block-checksum=1");
    const ToolRun host = run("secondserial", {device.address().section("://", 1)});
    EXPECT_EQ(host.code, 1);
    EXPECT_EQ(host.error, QString("a reply without the 16 bytes that it announced\n"));
}

#ifdef CORE_MANAGE_SHOWS_USB
TEST(UsbExample, ShowsTheReplyWithItsBlock)
{
    ExampleDevice device("usb://04b4:1008");
    ASSERT_TRUE(device.process.says("UMOCKDEV_DIR="));
    const QString export_ = device.process.error().section("export ", 1).section('\n', 0, 0);
    const ToolRun host = ToolRun({"04b4", "1008"}, {},
                                 QStringList{"env", export_, "umockdev-wrapper", EXAMPLES "/usb"});
    EXPECT_EQ(host.code, 0) << host.error.toStdString();
    EXPECT_EQ(host.output, "the device replied with 129 bytes\n");
}

TEST(UsbExample, SaysThatThereIsNoDevice)
{
    const ToolRun host = run("usb", {"04b4", "ffff"});
    EXPECT_EQ(host.code, 1);
    EXPECT_TRUE(host.error.startsWith("no such device"));
}
#endif

TEST(OsdExample, SendsUntilItIsAcknowledged)
{
    ExampleDevice endpoint("osd://127.0.0.1:0", "--fault drop=2");
    const ToolRun host = run("osd", {"127.0.0.1", endpoint.port(), "Gate 7"});
    EXPECT_EQ(host.code, 0) << host.error.toStdString();
    EXPECT_EQ(host.output, "127.0.0.1 acknowledged: 4f4b01\n");
    EXPECT_GE(endpoint.commands().size(), 3U);
}

// A file's bytes as the device got them: a block that came twice counts once.
QByteArray received(const std::vector<QJsonObject>& commands)
{
    QByteArray content;
    int next = 0;
    for (const QJsonObject& command : commands) {
        const QByteArray block = QByteArray::fromHex(command.value("block").toString().toLatin1());
        EXPECT_EQ(block.size(),
                  command.value("dat4").toInt() * 256 + command.value("dat3").toInt());
        if (command.value("dat2").toInt() == next % 256) {
            content += block;
            ++next;
        }
    }
    return content;
}

class SendFileExample : public ::testing::Test
{
protected:
    void SetUp() override
    {
        for (int i = 0; i < 300 * 512 + 88; ++i) { // more than 256 blocks, and not whole ones
            content.append(static_cast<char>(i * 7 + i / 251));
        }
        file.setFileName(directory.filePath("file"));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(content);
        file.close();
    }

    ToolRun send(const ExampleDevice& device)
    {
        return run("sendfile", {"127.0.0.1", device.port(), file.fileName()});
    }

    // Every block came, and came again only where the host says so: on a busy machine it may.
    void expectDelivery(const ToolRun& host, ExampleDevice& device)
    {
        EXPECT_EQ(host.code, 0) << host.error.toStdString();
        const auto commands = device.commands();
        EXPECT_EQ(commands.size(), 301U + static_cast<unsigned>(host.output.count("sent again")));
        EXPECT_EQ(received(commands), content);
    }

    QTemporaryDir directory;
    QFile file;
    QByteArray content;
};

TEST_F(SendFileExample, SendsEveryBlockAndSaysHowFarItIs)
{
    ExampleDevice device("udp://127.0.0.1:0");
    const ToolRun host = send(device);
    EXPECT_TRUE(host.output.contains("\n1024 of 153688 bytes\n"));
    EXPECT_TRUE(host.output.endsWith("\n153688 of 153688 bytes\nsent\n"));
    expectDelivery(host, device);
}

TEST_F(SendFileExample, SendsABlockAgainWhoseReplyIsLost)
{
    ExampleDevice device("udp://127.0.0.1:0", "--fault drop=2");
    const ToolRun host = send(device);
    EXPECT_TRUE(host.output.startsWith("block 0: no reply, sent again\n"
                                       "block 0: no reply, sent again\n"));
    expectDelivery(host, device);
}

TEST_F(SendFileExample, SendsABlockAgainWhoseReplyIsLate)
{
    ExampleDevice device("udp://127.0.0.1:0", "--fault delay=1:1500");
    const ToolRun host = send(device);
    EXPECT_TRUE(host.output.startsWith("block 0: no reply, sent again\n"));
    expectDelivery(host, device);
}

TEST_F(SendFileExample, GivesUpWithoutReplies)
{
    ExampleDevice device("udp://127.0.0.1:0", "--fault drop=100%");
    const ToolRun host = send(device);
    EXPECT_EQ(host.code, 1);
    EXPECT_EQ(host.error, QString("block 0: no reply to 4 tries\n"));
    EXPECT_EQ(device.commands().size(), 4U);
}

TEST(AskExample, AsksOverEachLink)
{
    for (const char* const link : {"udp://127.0.0.1:0", "serial://", "vela://"}) {
        const ExampleDevice device(link);
        const ToolRun host = run("ask", {device.address(), "0x10", "2"});
        EXPECT_EQ(host.code, 0) << link << host.error.toStdString();
        EXPECT_TRUE(host.output.startsWith("reply")) << link;
    }
}

TEST(AskExample, AsksAgainWhenABlockIsDamaged)
{
    ExampleDevice device("udp://127.0.0.1:0", "--fault short-block=2:1");
    const ToolRun host = run("ask", {device.address(), "0x8e", "0x27"});
    EXPECT_EQ(host.code, 0) << host.error.toStdString();
    EXPECT_EQ(host.output.trimmed().count(' '), 64);
    EXPECT_EQ(device.commands().size(), 3U);
}

TEST(AskExample, GivesUpAfterThreeTries)
{
    ExampleDevice device("udp://127.0.0.1:0", "--fault drop=100%");
    const ToolRun host = run("ask", {device.address(), "0x8b", "9"});
    EXPECT_EQ(host.code, 1);
    EXPECT_EQ(host.error, QString("no reply\n"));
    EXPECT_EQ(device.commands().size(), 3U);
}

TEST(AskExample, KeepsItsLogInTwoFiles)
{
    const ExampleDevice device("udp://127.0.0.1:0");
    ToolProcess host({device.address(), "0x8b", "9"}, {}, example("ask"));
    ASSERT_EQ(host.exitCode(), 0);
    QFile log(host.home() + "/ask.log");
    ASSERT_TRUE(log.open(QIODevice::ReadOnly));
    EXPECT_TRUE(log.readAll().contains("Send successful:<T00008b0900000094>"));
}

TEST(AskExample, RefusesALinkThatItCannotOpen)
{
    for (const char* const link : {"nothing", "foo://127.0.0.1:1", "serial:///nowhere/port"}) {
        EXPECT_EQ(run("ask", {link, "1", "0"}).code, 2) << link;
    }
}

} // namespace
