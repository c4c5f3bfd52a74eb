// SPDX-License-Identifier: MIT
#include "replybytes.h"
#include "tests/transports/serialpeer.h"
#include "toolprocess.h"

#include <gtest/gtest.h>

#include <QFileInfo>
#include <QJsonDocument>

#include <sys/stat.h>
#include <unistd.h>

TEST(SerialTool, SendsOverASerialPortAndShowsTheReply)
{
    SerialPeer device;
    ToolProcess tool(
        words(QStringLiteral("send serial://%1?baud=9600&parity=even --cmd 0x10 --timeout "
                             "60000 --json")
                  .arg(device.portName())));
    ASSERT_TRUE(eventually([&device] { return device.received().size() >= 19; }));
    EXPECT_EQ(device.received(), QByteArray("<T00001000000000") + "10>");
    const termios set = device.settings();
    EXPECT_EQ(cfgetospeed(&set), speed_t(B9600));
    EXPECT_TRUE(device.send(replybytes::text(0x10, 0x20)));
    EXPECT_EQ(tool.exitCode(), 0) << tool.error().toStdString();
    EXPECT_TRUE(tool.output().contains("\"dat1\":32"));
}

TEST(SerialTool, TellsWhatABinaryFrameHasOfItsOwn)
{
    const SerialPeer device;
    const ToolRun run(
        words(QStringLiteral("send vela://%1 --cmd 6 --block 010203 --timeout 0 --json")
                  .arg(device.portName())));
    EXPECT_EQ(run.code, 0) << run.error.toStdString();
    const QJsonObject sent = run.json.value(QStringLiteral("sent")).toObject();
    const QByteArray frame =
        QByteArray::fromHex(sent.value(QStringLiteral("frame")).toString().toLatin1());
    ASSERT_EQ(frame.size(), 16 + 3);
    EXPECT_EQ(sent.value(QStringLiteral("chksum")).toInt(), static_cast<quint8>(frame.at(15)));
    EXPECT_EQ(sent.value(QStringLiteral("aux6")).toInt(), 3);
}

TEST(SerialTool, TellsWhatABinaryCommandHadOfItsOwn)
{
    ToolProcess device(words(QStringLiteral("simulate vela:// --json")));
    ASSERT_TRUE(device.says(QStringLiteral("\n")));
    const QString link = device.json().value(QStringLiteral("simulating")).toString();
    const ToolRun run(words(QStringLiteral("send %1 --cmd 6 --dat1 7 --addr 2 --aux1 0x1234 "
                                           "--aux3 3 --aux4 0x405 --aux5 0x506 --block 010203 "
                                           "--timeout 60000 --json")
                                .arg(link)));
    EXPECT_EQ(run.code, 0) << run.error.toStdString();
    ASSERT_TRUE(device.says(QStringLiteral("\"answer\"")));
    const QJsonObject told = QJsonDocument::fromJson(device.lines().value(1).toUtf8()).object();
    const QJsonObject sent = run.json.value(QStringLiteral("sent")).toObject();
    for (const char* field : {"aux1", "aux2", "aux3", "aux4", "aux5", "aux6", "addr", "cmd", "dat1",
                              "dat2", "dat3", "dat4", "chksum", "block_length", "block"}) {
        EXPECT_TRUE(told.contains(QLatin1String(field))) << field;
        EXPECT_EQ(told.value(QLatin1String(field)), sent.value(QLatin1String(field))) << field;
    }
    EXPECT_EQ(told.value(QStringLiteral("aux1")).toInt(), 0x1234);
    EXPECT_EQ(told.value(QStringLiteral("aux6")).toInt(), 3);
    EXPECT_FALSE(told.contains(QStringLiteral("head"))) << "no binary frame has it";
}

TEST(SerialTool, ReportsADamagedReplyOnce)
{
    SerialPeer device;
    const QString link = QStringLiteral("serial://") + device.portName();
    ToolProcess tool({QStringLiteral("listen"), link});
    ASSERT_TRUE(tool.says(QStringLiteral("listening on")));
    EXPECT_TRUE(device.send("<F5a0110020000006e>"));
    EXPECT_TRUE(device.send(replybytes::text(0x10, 0x20)));
    EXPECT_TRUE(tool.says(QStringLiteral("CMD 10 DAT1 20")));
    EXPECT_TRUE(tool.says(QStringLiteral(" refused: a reply with a wrong checksum from %1: "
                                         "<F5a0110020000006e>\n")
                              .arg(link)));
    const QByteArray withBlock = replybytes::text(0x8b, 0x05);
    EXPECT_TRUE(device.send(withBlock + QByteArray(145, 'x')));
    EXPECT_TRUE(
        tool.says(QStringLiteral(" refused: a reply whose block is damaged from %1: ").arg(link)));
    tool.interrupt();
    EXPECT_EQ(tool.exitCode(), 0);
    EXPECT_EQ(tool.error().count(QStringLiteral("refused")), 2) << tool.error().toStdString();
}

TEST(SerialTool, SaysThatTheDeviceHasGone)
{
    SerialPeer device;
    ToolProcess tool(words(QStringLiteral("listen vela://%1").arg(device.portName())));
    ASSERT_TRUE(tool.says(QStringLiteral("listening on")));
    device.hangUp();
    EXPECT_EQ(tool.exitCode(), 1);
    EXPECT_TRUE(tool.error().contains(QLatin1String("the device has gone")));
}

TEST(SerialTool, RefusesWrongSettingsAndPorts)
{
    for (const char* link :
         {"serial:///dev/ttyS0?baud=fast", "serial:///dev/ttyS0?baud=+9600",
          "serial:///dev/ttyS0?baud= 9600", "serial:///dev/ttyS0?data=9",
          "vela:///dev/ttyS0?parity=some", "serial:///dev/ttyS0?speed=1", "serial://"}) {
        EXPECT_EQ(ToolRun({QStringLiteral("send"), QLatin1String(link), QStringLiteral("--cmd"),
                           QStringLiteral("1")})
                      .code,
                  2)
            << link;
    }
    const ToolRun missing(words(QStringLiteral("send serial:///dev/ttyNone --cmd 1")));
    EXPECT_EQ(missing.code, 3);
    EXPECT_TRUE(missing.error.contains(QLatin1String("there is no /dev/ttyNone")));
}

TEST(SerialTool, SaysWhichRightsAreMissingAndWhatWouldHelp)
{
    const SerialPeer device;
    const QByteArray path = device.portName().toLocal8Bit();
    constexpr gid_t someGroup = 65534;
    const bool mayChoose = chown(path.constData(), geteuid(), someGroup) == 0;
    const QString group = QFileInfo(device.portName()).group();
    const auto send = [&device] {
        return ToolRun(words(QStringLiteral("send serial://%1 --cmd 1").arg(device.portName())), {},
                       toolWithoutPrivilege());
    };
    ASSERT_EQ(chmod(path.constData(), 0200), 0);
    const ToolRun none = send();
    EXPECT_EQ(none.code, 3);
    EXPECT_TRUE(
        none.error.contains(QStringLiteral(": Permission denied (0200, owner %1, group %2)\n")
                                .arg(QFileInfo(device.portName()).owner(), group)))
        << none.error.toStdString();
    ASSERT_EQ(chmod(path.constData(), 0060), 0);
    const ToolRun byGroup = send();
    EXPECT_EQ(byGroup.code, 3);
    EXPECT_TRUE(byGroup.error.contains(
        QStringLiteral(", group %1): join its group: sudo usermod -aG %1 ").arg(group)))
        << byGroup.error.toStdString();
    if (mayChoose) {
        ASSERT_EQ(chown(path.constData(), geteuid(), 0), 0);
        EXPECT_TRUE(send().error.contains(QLatin1String(": Permission denied (0060, owner ")))
            << "nobody joins root's group";
    }
}

TEST(SerialTool, SaysWhoHasThePort)
{
    ToolProcess device(words(QStringLiteral("simulate serial://")));
    ASSERT_TRUE(device.says(QStringLiteral("\n")));
    const QString link = device.lines().value(0).section(QLatin1Char(' '), -1);
    ToolProcess holder({QStringLiteral("listen"), link});
    ASSERT_TRUE(holder.says(QStringLiteral("listening on")));
    const ToolRun run({QStringLiteral("send"), link, QStringLiteral("--cmd"), QStringLiteral("1")});
    EXPECT_EQ(run.code, 3);
    EXPECT_EQ(run.error, QStringLiteral("coremanage: %1: process %2 (coremanage) has it: end that "
                                        "first\n")
                             .arg(link)
                             .arg(holder.id()));
}

TEST(SerialTool, LeavesNoNameBehindWhenItsTerminalCloses)
{
    const QTemporaryDir directory;
    const QString path = directory.filePath(QStringLiteral("port"));
    ToolProcess device({QStringLiteral("simulate"), QStringLiteral("serial://") + path});
    ASSERT_TRUE(device.says(path));
    ASSERT_TRUE(QFileInfo(path).isSymLink());
    device.closeTerminal();
    EXPECT_EQ(device.exitCode(), 0);
    EXPECT_FALSE(QFileInfo(path).isSymLink());
}

TEST(SerialTool, ServesOnBehindNohup)
{
    ToolProcess device(words(QStringLiteral("simulate serial://")), {},
                       {QStringLiteral("nohup"), builtTool()});
    ASSERT_TRUE(device.says(QStringLiteral("serial:///dev/pts/")));
    const QString link = device.lines().value(0).section(QLatin1Char(' '), -1);
    device.closeTerminal();
    for (int i = 0; i < 2; ++i) { // what the first finds answered has looked at its signals since
        const ToolRun run(words(QStringLiteral("send %1 --cmd 1 --timeout 60000").arg(link)));
        EXPECT_EQ(run.code, 0) << run.error.toStdString();
    }
    device.interrupt();
    EXPECT_EQ(device.exitCode(), 0);
}

TEST(SerialTool, ListsPorts)
{
    const ToolRun ports({QStringLiteral("ports")});
    EXPECT_TRUE((ports.code == 0 && !ports.output.isEmpty()) ||
                (ports.code == 1 && ports.error.contains(QLatin1String("no serial port"))));
}
