// SPDX-License-Identifier: MIT
#include "netns.h"
#include "tests/transports/udppeer.h"
#include "toolprocess.h"

#include <gtest/gtest.h>

#include <thread>

namespace
{

void expectAllAsSaid(const ToolRun& run)
{
    EXPECT_EQ(run.code, 0) << run.output.constData() << run.error.toStdString();
    for (const char* text :
         {"a simulated device serves at udp://127.0.0.1:", "host   -> device  <T",
          "device -> host    127.0.0.1 HEAD 5a", "the block arrived whole, 145 bytes",
          "the block arrived whole, 64 bytes", "a reply with a wrong checksum",
          "the second try got its reply", "200 replies came",
          "a simulated endpoint serves at osd://127.0.0.3:",
          "127.0.0.1, 127.0.0.2, 127.0.0.3 acknowledged",
          "127.0.0.1, 127.0.0.2, 127.0.0.3 acknowledged", "endpoint -> host  127.0.0.2 OK 01",
          "127.0.0.2 goes away; the others go on\n  ok: 127.0.0.2 has hung up",
          "127.0.0.2 comes back", "it reads again: 127.0.0.2 acknowledged",
          "things happened as they were said.\n"}) {
        EXPECT_TRUE(run.output.contains(text)) << text;
    }
#ifdef CORE_MANAGE_SHOWS_USB
    EXPECT_TRUE(run.output.contains("a simulated device serves at usb://04b4:1008"));
    EXPECT_TRUE(run.output.contains("20 replies came"));
#else
    EXPECT_TRUE(run.output.contains("Not shown: "));
#endif
    EXPECT_FALSE(run.output.contains("FAILED"));
    EXPECT_TRUE(run.error.isEmpty()) << run.error.toStdString();
}

TEST(Demo, ShowsEverythingItSays)
{
    expectAllAsSaid(ToolRun({QStringLiteral("demo")}));
}

TEST(Demo, ShowsOneLink)
{
    const UdpPeer holder(QStringLiteral("127.0.0.1"), UdpPeer::linkPort);
    ASSERT_TRUE(holder.bound()) << "no other link but udp:// needs that port";
    for (const char* link : {"serial", "serial://", "osd"}) {
        const ToolRun run({QStringLiteral("demo"), QLatin1String(link)});
        EXPECT_EQ(run.code, 0) << run.output.constData() << run.error.toStdString();
        EXPECT_TRUE(run.output.contains(QByteArray("serves at ") + QByteArray(link).left(3)));
        EXPECT_TRUE(run.output.contains("things happened as they were said.\n"));
        for (const char* other : {"udp://", "vela://", "usb://", "is taken by"}) {
            EXPECT_FALSE(run.output.contains(other)) << link << ' ' << other;
        }
    }
}

TEST(Demo, ShowsOneLinkAtAPlaceOfItsOwn)
{
    const QTemporaryDir directory;
    const QString link = QStringLiteral("serial://") + directory.filePath(QStringLiteral("port"));
    const ToolRun run({QStringLiteral("demo"), link});
    EXPECT_EQ(run.code, 0) << run.output.constData() << run.error.toStdString();
    EXPECT_TRUE(run.output.contains(("serves at " + link + '\n').toUtf8()));
    EXPECT_TRUE(QDir(directory.path()).isEmpty());
    const ToolRun elsewhere(words(QStringLiteral("demo udp://192.0.2.1")));
    EXPECT_EQ(elsewhere.code, 3);
    EXPECT_TRUE(elsewhere.error.contains(QStringLiteral("udp://192.0.2.1: this machine does not "
                                                        "have that address")));
    for (const char* wrong : {"osd://127.0.0.1", "uart", "udp://here"}) {
        EXPECT_EQ(ToolRun({QStringLiteral("demo"), QLatin1String(wrong)}).code, 2) << wrong;
    }
}

TEST(Demo, NeedsNoTerminal)
{
    expectAllAsSaid(ToolRun({QStringLiteral("demo")}, {},
                            {QStringLiteral("setsid"), QStringLiteral("-w"), builtTool()}));
}

TEST(Demo, MakesRoomWhenTheReplyPortIsTaken)
{
    const UdpPeer holder(QStringLiteral("127.0.0.1"), UdpPeer::linkPort);
    ASSERT_TRUE(holder.bound());
    const ToolRun run({QStringLiteral("demo")});
    if (!netns::isolated() && run.code == 3) {
        EXPECT_TRUE(run.error.contains(QStringLiteral("is taken by")));
        GTEST_SKIP() << "the right to make a network namespace is missing";
    }
    expectAllAsSaid(run);
    EXPECT_TRUE(run.output.contains("is taken by process"));
    EXPECT_TRUE(run.output.contains("runs in a network namespace of its own"));
    EXPECT_FALSE(holder.hasDatagram());
}

TEST(Demo, BringsTheLoopbackInterfaceUp)
{
    const QStringList inside{QStringLiteral("unshare"), QStringLiteral("-rn")};
    if (QProcess::execute(inside.first(), inside.mid(1) + QStringList(QStringLiteral("true"))) !=
        0) {
        GTEST_SKIP() << "the right to make a network namespace is missing";
    }
    const ToolRun run({QStringLiteral("demo")}, {}, inside + QStringList(builtTool()));
    expectAllAsSaid(run);
    EXPECT_TRUE(run.output.contains("The loopback interface was down: it is up now."));
}

TEST(Demo, SaysThatTheTemporaryDirectoryCannotBeUsed)
{
    const QTemporaryDir directory;
    std::vector<QStringList> commands{withTemporary(QStringLiteral("/nonexistent"))};
    for (const char* shortage : {"ro", "size=64k", "nr_inodes=2"}) {
        commands.push_back(withTemporary(directory.path(), QLatin1String(shortage)));
    }
#ifdef CORE_MANAGE_SHOWS_USB // enough for the log, not for a device
    commands.push_back(withTemporary(directory.path(), QStringLiteral("nr_inodes=20")));
#endif
    for (const QStringList& command : commands) {
        if (command.isEmpty()) {
            GTEST_SKIP() << "the right to make a mount namespace is missing";
        }
        const ToolRun run({QStringLiteral("demo")}, {}, command);
        EXPECT_EQ(run.code, 3);
        EXPECT_TRUE(run.error.startsWith(QStringLiteral("coremanage: the temporary directory ")))
            << run.error.toStdString();
        EXPECT_EQ(run.error.count(QLatin1Char('\n')), 1) << run.error.toStdString();
        EXPECT_FALSE(run.output.contains("FAILED"));
        EXPECT_FALSE(run.output.contains("coremanage-")) << "left behind";
    }
}

TEST(Demo, EndsWhenNobodyReadsItAnyMore)
{
    const QTemporaryDir directory;
    const ToolRun run(
        {QStringLiteral("demo")}, {},
        withTemporary(directory.path()).mid(0, 2) +
            QStringList{QStringLiteral("sh"), QStringLiteral("-c"), readByHead(), builtTool()});
    EXPECT_EQ(run.output.count('\n'), 1) << run.output.constData();
    EXPECT_EQ(run.error.toStdString(),
              "coremanage: standard output could not be written\ncode 1\n");
    EXPECT_TRUE(QDir(directory.path()).isEmpty()) << "its log has gone, too";
}

// The tool stands still as if all others had their turn first, where it waits for what comes soon.
TEST(Demo, WaitsAsLongAsALoadedMachineNeeds)
{
    constexpr std::chrono::seconds pause{5};
    ToolProcess tool({QStringLiteral("demo")});
    for (const char* step : {"One answers in pieces", "never reads; the others go on"}) {
        ASSERT_TRUE(tool.says(QLatin1String(step)));
        tool.stop();
        std::this_thread::sleep_for(pause);
        tool.goOn();
    }
    EXPECT_EQ(tool.exitCode(), 0) << tool.output().constData() << tool.error().toStdString();
    EXPECT_FALSE(tool.output().contains("FAILED"));
}

TEST(Demo, EndsWithCtrlC)
{
    ToolProcess tool({QStringLiteral("demo")});
    ASSERT_TRUE(tool.says(QStringLiteral("A command and its reply")));
    tool.interrupt();
    EXPECT_EQ(tool.exitCode(), 1);
}

TEST(Help, IsForPeople)
{
    const ToolRun run({QStringLiteral("--help")});
    EXPECT_EQ(run.code, 0);
    for (const char* name :
         {"demo", "send", "listen", "simulate", "ports", "devices", "encode", "decode"}) {
        EXPECT_TRUE(run.output.contains(QByteArray("\n  ") + name + " ")) << name;
        const ToolRun help({QLatin1String(name), QStringLiteral("--help")});
        EXPECT_EQ(help.code, 0);
        EXPECT_TRUE(help.output.contains("Exit codes: 0 ")) << name;
        EXPECT_TRUE(name == QByteArray("demo") ||
                    help.output.contains("  coremanage " + QByteArray(name)))
            << "examples of " << name;
    }
    EXPECT_EQ(ToolRun({QStringLiteral("--version")}).code, 0);
}

} // namespace
