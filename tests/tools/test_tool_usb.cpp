// SPDX-License-Identifier: MIT
#include "emulatedhid.h"
#include "eventually.h"
#include "replybytes.h"
#include "toolprocess.h"

#include <gtest/gtest.h>

#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>

#include <sys/stat.h>
#include <thread>

namespace
{

constexpr quint16 vendor = 0x04B4;
constexpr quint16 product = 0x1008;

class UsbTool : public ::testing::Test
{
protected:
    HidTestbed testbed;
    EmulatedHid device{testbed, vendor, product};
};

QByteArray report(const QByteArray& data)
{
    return QByteArray(1, '\0') + data.leftJustified(64, '\0');
}

// Takes the node's rights away from everyone; root needs to be without its privilege, too.
QStringList withoutAccess(const HidTestbed& testbed)
{
    chmod((testbed.root() + QStringLiteral("/dev/hidraw0")).toLocal8Bit().constData(), 0);
    return toolWithoutPrivilege();
}

// What starts the tool so that it sees the device of a simulator, as that says.
QStringList toolThatSees(ToolProcess& simulator)
{
    const QString start =
        QStringLiteral("export %1=").arg(QLatin1String(HidTestbed::locationVariable));
    EXPECT_TRUE(simulator.says(start + QLatin1Char('/')));
    const QString variable =
        simulator.error().section(QStringLiteral("export "), 1).section(QLatin1Char('\n'), 0, 0);
    return {QStringLiteral("env"), variable, builtTool()};
}

const QString rule = QStringLiteral("KERNEL==\"hidraw*\", SUBSYSTEM==\"hidraw\", "
                                    "ATTRS{idVendor}==\"04b4\", ATTRS{idProduct}==\"1008\", "
                                    "TAG+=\"uaccess\"");

} // namespace

TEST_F(UsbTool, SendsAndShowsTheReply)
{
    ToolProcess tool(
        words(QStringLiteral("send usb://04B4:1008 --cmd 0x10 --json --timeout 30000")));
    ASSERT_TRUE(eventually([this] { return !device.written().empty(); }));
    EXPECT_EQ(device.written(), std::vector<QByteArray>{report("<T0000100000000010>")});
    ASSERT_TRUE(device.sendPadded(replybytes::text(0x10, 0x20)));
    EXPECT_EQ(tool.exitCode(), 0) << tool.error().toStdString();
    EXPECT_EQ(tool.json().value(QStringLiteral("replies")).toArray().size(), 1);
    EXPECT_TRUE(tool.output().contains("\"dat1\":32"));
}

TEST_F(UsbTool, SendsABlockInReports)
{
    const QByteArray block(100, 'b');
    const ToolRun run(words(QStringLiteral("send usb://04b4:1008 --cmd 0x10 --timeout 0 --block ") +
                            QString::fromLatin1(block.toHex())));
    EXPECT_EQ(run.code, 0) << run.error.toStdString();
    const QByteArray frame = "<T0000100000640074>" + block;
    EXPECT_EQ(device.written(),
              (std::vector<QByteArray>{report(frame.left(64)), report(frame.mid(64))}));
}

TEST_F(UsbTool, SaysThatNothingAnswers)
{
    const ToolRun run(words(QStringLiteral("send usb://04b4:1008 --cmd 1 --timeout 100")));
    EXPECT_EQ(run.code, 1);
    EXPECT_TRUE(run.error.contains(QStringLiteral("no reply within 100 ms: nothing came\n")))
        << run.error.toStdString();
}

TEST_F(UsbTool, SaysThatWhatCameIsNoReply)
{
    ToolProcess tool(words(QStringLiteral("send usb://04b4:1008 --cmd 1 --timeout 5000")));
    ASSERT_TRUE(eventually([this] { return !device.written().empty(); }));
    ASSERT_TRUE(device.sendPadded("noise"));
    EXPECT_EQ(tool.exitCode(), 1);
    EXPECT_TRUE(tool.says(QStringLiteral("64 bytes came and none was a reply: 6e 6f 69 73 65 00 ")))
        << tool.error().toStdString();
}

TEST_F(UsbTool, LooksAtWhatMayKeepItSilent)
{
    const QStringList doctor = words(QStringLiteral("doctor usb://04b4:1008"));
    const ToolRun fine(doctor);
    EXPECT_EQ(fine.code, 0);
    EXPECT_EQ(fine.output, "fine  /dev/hidraw0 may be opened\n");
    const ToolRun refused(doctor, {}, withoutAccess(testbed));
    EXPECT_EQ(refused.code, 1);
    EXPECT_TRUE(refused.output.startsWith("WRONG /dev/hidraw0: Permission denied (0000, owner "))
        << refused.output.toStdString();
    EXPECT_TRUE(refused.output.endsWith(rule.toLatin1() + '\n')) << refused.output.toStdString();
    EXPECT_TRUE(device.written().empty());
    const ToolRun none(words(QStringLiteral("doctor usb://04b4:1009")));
    EXPECT_EQ(none.code, 1);
    EXPECT_TRUE(none.output.startsWith("WRONG there is no such device\n      plug it in;"));
}

TEST_F(UsbTool, SaysThatAReportIsNotTaken)
{
    device.refuseWrites(true);
    const ToolRun run(words(QStringLiteral("send usb://04b4:1008 --cmd 1")));
    EXPECT_EQ(run.code, 1);
    EXPECT_TRUE(run.error.contains(QStringLiteral("not sent"))) << run.error.toStdString();
}

TEST_F(UsbTool, SaysThatTheDeviceHasGone)
{
    for (const char* typed :
         {"listen usb://04b4:1008", "send usb://04b4:1008 --cmd 1 --timeout 60000"}) {
        EmulatedHid other(testbed, 0x1209, 1);
        QString text = QLatin1String(typed);
        ToolProcess tool(
            words(text.replace(QLatin1String("04b4:1008"), QLatin1String("1209:0001")) +
                  QStringLiteral(" --verbose")));
        ASSERT_TRUE(tool.says(text.startsWith(QLatin1Char('l')) ? QStringLiteral("listening on")
                                                                : QStringLiteral("Send usb data")));
        other.unplug();
        EXPECT_EQ(tool.exitCode(), 1);
        EXPECT_TRUE(tool.error().contains(QStringLiteral("usb://1209:0001: the device has gone")))
            << tool.error().toStdString();
    }
}

TEST_F(UsbTool, ListensAndWarnsOfRepliesThatComeTooFast)
{
    const QString warning = QStringLiteral("replies come as fast as reports are read");
    ToolProcess tool(words(QStringLiteral("listen usb://04b4:1008")));
    ASSERT_TRUE(tool.says(QStringLiteral("listening on")));
    for (int i = 0; i < 12; ++i) {
        ASSERT_TRUE(device.sendPadded(replybytes::text(0x10, 0x20)));
        std::this_thread::sleep_for(std::chrono::milliseconds(250));
    }
    ASSERT_TRUE(eventually([this] { return device.unread() == 0; }));
    ASSERT_TRUE(tool.says(QStringLiteral("CMD 10")));
    EXPECT_FALSE(tool.error().contains(warning));
    std::atomic<bool> isFlooding{true};
    std::thread flood([&] {
        while (isFlooding) {
            device.sendPadded(replybytes::text(0x10, 0x20));
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
        }
    });
    EXPECT_TRUE(tool.says(warning));
    isFlooding = false;
    flood.join();
    tool.interrupt();
    EXPECT_EQ(tool.exitCode(), 0);
    EXPECT_EQ(tool.error().count(warning), 1);
}

TEST_F(UsbTool, ListsDevices)
{
    const EmulatedHid other(testbed, 0x1209, 0xABCD);
    const ToolRun run({QStringLiteral("devices")});
    EXPECT_EQ(run.code, 0);
    EXPECT_EQ(run.output, "usb://04b4:1008 /dev/hidraw0 (Emulated HID) may be opened\n"
                          "usb://1209:abcd /dev/hidraw1 (Emulated HID) may be opened\n");
    const ToolRun json(words(QStringLiteral("devices --json")));
    EXPECT_EQ(json.json.value(QStringLiteral("link")).toString(),
              QStringLiteral("usb://04b4:1008"));
    EXPECT_EQ(json.json.value(QStringLiteral("may_open")).toBool(), true);
    EXPECT_EQ(json.json.value(QStringLiteral("rule")).toString(), rule);
}

TEST_F(UsbTool, SaysWhenThereIsNoDevice)
{
    device.unplug();
    const ToolRun none({QStringLiteral("devices")});
    EXPECT_EQ(none.code, 1);
    EXPECT_TRUE(none.error.contains(QStringLiteral("there is no USB HID device")));
    const ToolRun run(words(QStringLiteral("send usb://04b4:1008 --cmd 1")));
    EXPECT_EQ(run.code, 3);
    EXPECT_TRUE(run.error.contains(QStringLiteral("there is no such device: coremanage devices")));
}

TEST_F(UsbTool, SaysWhichRightsAreMissingAndWhatWouldHelp)
{
    const QStringList command = withoutAccess(testbed);
    const QString reason = QStringLiteral("Permission denied (0000, owner ");
    const ToolRun run({QStringLiteral("devices")}, {}, command);
    EXPECT_EQ(run.code, 0);
    EXPECT_TRUE(run.output.contains(
        QStringLiteral("usb://04b4:1008 /dev/hidraw0 (Emulated HID) %1").arg(reason).toUtf8()))
        << run.output.constData() << run.error.toStdString();
    EXPECT_TRUE(run.output.contains("/etc/udev/rules.d/70-core-manage.rules"));
    EXPECT_TRUE(run.output.contains("\n    " + rule.toUtf8() + '\n'));
    const ToolRun json(words(QStringLiteral("devices --json")), {}, command);
    EXPECT_EQ(json.json.value(QStringLiteral("may_open")).toBool(true), false);
    EXPECT_TRUE(json.json.value(QStringLiteral("obstacle")).toString().startsWith(reason));
    const ToolRun send(words(QStringLiteral("send usb://04b4:1008 --cmd 1")), {}, command);
    EXPECT_EQ(send.code, 3);
    EXPECT_TRUE(send.error.contains(QStringLiteral("/dev/hidraw0: ") + reason))
        << send.error.toStdString();
    EXPECT_TRUE(send.error.contains(QStringLiteral("coremanage devices shows the rule")));
    EXPECT_EQ(send.error.count(QLatin1Char('\n')), 1);
}

TEST_F(UsbTool, PrintsTheRulesThatAreInstalled)
{
    const EmulatedHid second(testbed, vendor, 0x100A);
    const EmulatedHid third(testbed, vendor, 0x100C);
    QStringList printed;
    for (const QString& line :
         QString::fromUtf8(ToolRun(words(QStringLiteral("devices --json"))).output)
             .split(QLatin1Char('\n'), Qt::SkipEmptyParts)) {
        printed << QJsonDocument::fromJson(line.toUtf8())
                       .object()
                       .value(QStringLiteral("rule"))
                       .toString();
    }
    QFile file(QStringLiteral(UDEV_RULES));
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QStringList lines = QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'));
    EXPECT_EQ(lines.filter(QRegularExpression(QStringLiteral("^[^#]"))), printed);
    EXPECT_LT(QFileInfo(file).fileName().left(2).toInt(), 73);
}

TEST(UsbToolInput, IsRefusedWhenWrong)
{
    for (const char* link : {"usb://", "usb://04b4", "usb://04b4:10080", "usb://04g4:1008",
                             "usb://04b4:1008:1", "usb://04b4:1008?serial=1", "usb://4b4:1008"}) {
        for (const char* subcommand : {"listen", "simulate"}) {
            const ToolRun run({QLatin1String(subcommand), QLatin1String(link)});
            EXPECT_EQ(run.code, 2) << link;
            EXPECT_TRUE(run.error.contains(QLatin1String(link))) << run.error.toStdString();
        }
    }
    EXPECT_EQ(ToolRun(words(QStringLiteral("send usb://04b4:1008 --cmd 1 --broadcast"))).code, 2);
}

TEST(UsbToolSimulator, ServesOtherProcesses)
{
    ToolProcess simulator(words(QStringLiteral("simulate usb://1209:00ab --fault hang-up=1")));
    const QStringList there = toolThatSees(simulator);
    const ToolRun list({QStringLiteral("devices")}, {}, there);
    EXPECT_EQ(list.output, "usb://1209:00ab /dev/hidraw0 (Emulated HID) may be opened\n");
    const ToolRun send(
        words(QStringLiteral("send usb://1209:00ab --cmd 0x8b --dat1 5 --timeout 60000")), {},
        there);
    EXPECT_EQ(send.code, 1);
    EXPECT_TRUE(send.error.contains(QStringLiteral("the device has gone")))
        << send.error.toStdString();
    EXPECT_EQ(simulator.exitCode(), 1);
    EXPECT_TRUE(simulator.error().contains(QStringLiteral("unplugged, as asked")));
    EXPECT_FALSE(QFileInfo::exists(there.at(1).section(QLatin1Char('='), 1)));
}

TEST(UsbToolSimulator, AnswersWithABlock)
{
    ToolProcess simulator(words(QStringLiteral("simulate usb://1209:00ab")));
    const QStringList there = toolThatSees(simulator);
    const ToolRun send(words(QStringLiteral("send usb://1209:00ab --cmd 0x8b --dat1 5 --json "
                                            "--timeout 30000")),
                       {}, there);
    EXPECT_EQ(send.code, 0) << send.error.toStdString();
    EXPECT_TRUE(send.output.contains("\"block_length\":145"));
    simulator.interrupt();
    EXPECT_EQ(simulator.exitCode(), 0) << simulator.error().toStdString();
}

TEST(UsbToolSimulator, LeavesNothingBehindWhenItsTerminalCloses)
{
    ToolProcess simulator(words(QStringLiteral("simulate usb://1209:00ab")));
    const QString directory = toolThatSees(simulator).at(1).section(QLatin1Char('='), 1);
    ASSERT_TRUE(QFileInfo::exists(directory));
    simulator.closeTerminal();
    EXPECT_EQ(simulator.exitCode(), 0);
    EXPECT_FALSE(QFileInfo::exists(directory));
}

TEST(UsbToolSimulator, SaysWhatItLacks)
{
    const QTemporaryDir directory;
    const QByteArray tools = QFileInfo(builtTool()).path().toLocal8Bit();
    qputenv("LD_LIBRARY_PATH",
            tools + "/..:" + tools + "/../host:" + tools + "/../capture"); // none is beside it
    const QString copy = directory.filePath(QStringLiteral("coremanage"));
    ASSERT_TRUE(QFile::copy(builtTool(), copy));
    const QStringList simulate = words(QStringLiteral("simulate usb://04b4:1008 --for 1"));
    const ToolRun alone(simulate, {}, {copy});
    EXPECT_EQ(alone.code, 3);
    EXPECT_TRUE(alone.error.contains(QStringLiteral("it was built without umockdev")))
        << alone.error.toStdString();

    QFile broken(directory.filePath(QStringLiteral("libumockdev.so.0")));
    ASSERT_TRUE(broken.open(QIODevice::WriteOnly));
    broken.write("no library");
    broken.close();
    const ToolRun without(simulate, {},
                          {QStringLiteral("env"),
                           QStringLiteral("LD_LIBRARY_PATH=") + directory.path(), builtTool()});
    EXPECT_EQ(without.code, 3);
    EXPECT_TRUE(without.error.contains(QStringLiteral("sudo apt install umockdev")))
        << without.error.toStdString();
    EXPECT_EQ(without.error.count(QLatin1Char('\n')), 1);
}

TEST(UsbToolSimulator, SaysThatItsTemporaryDirectoryIsNotThere)
{
    const ToolRun run(words(QStringLiteral("simulate usb://04b4:1008")), {},
                      withTemporary(QStringLiteral("/nonexistent")));
    EXPECT_EQ(run.code, 3);
    EXPECT_TRUE(run.output.isEmpty());
    EXPECT_TRUE(run.error.contains(QStringLiteral("the temporary directory /nonexistent does not "
                                                  "take")))
        << run.error.toStdString();
    EXPECT_EQ(run.error.count(QLatin1Char('\n')), 1);
}

class FullTemporaryDirectory : public ::testing::Test
{
protected:
    /// Whether it serves on a file system with these options; if not, checks what it says.
    bool serves(const QString& options)
    {
        const ToolRun run(words(QStringLiteral("simulate usb://04b4:1008 --for 1")), {},
                          withTemporary(directory.path(), options));
        if (!run.output.isEmpty()) {
            return true;
        }
        EXPECT_EQ(run.code, 3) << options.toStdString();
        EXPECT_TRUE(run.error.contains(
            QStringLiteral("the temporary directory %1 does not take").arg(directory.path())))
            << options.toStdString() << ": " << run.error.toStdString();
        EXPECT_EQ(run.error.count(QLatin1Char('\n')), 1) << run.error.toStdString();
        return false;
    }

    const QTemporaryDir directory;
};

// Every place where it may run out of files, then where it may run out of blocks.
TEST_F(FullTemporaryDirectory, IsSaidToBe)
{
    if (withTemporary(directory.path(), QStringLiteral("ro")).isEmpty()) {
        GTEST_SKIP() << "this system allows nobody a mount of his own";
    }
    EXPECT_FALSE(serves(QStringLiteral("ro")));
    constexpr int mostFiles = 200;
    int files = 1;
    while (files < mostFiles && !serves(QStringLiteral("nr_inodes=%1").arg(files))) {
        ++files;
    }
    EXPECT_GT(files, 10);
    EXPECT_LT(files, mostFiles);
    for (int blocks = 1; blocks <= 16; ++blocks) {
        EXPECT_FALSE(serves(QStringLiteral("size=%1").arg(blocks * 4096))) << blocks;
    }
}
