// SPDX-License-Identifier: MIT
// What send and listen show of what comes, and how.
#include "osdpeer.h"
#include "tests/transports/serialpeer.h"
#include "udptool.h"
#ifdef CORE_MANAGE_SHOWS_USB
#include "emulatedhid.h"
#endif

#include <QDateTime>
#include <QElapsedTimer>
#include <QJsonDocument>
#include <QProcess>

#include <algorithm>
#include <thread>
#include <utility>

namespace
{

using Words = std::pair<const char*, const char*>;
using Ended = std::pair<QString, int>;

class Shown : public UdpTool
{
protected:
    // One of each kind of thing that listen shows, from two senders.
    void sendOfEachKind()
    {
        device.send(replyText(0x10, 0x01));
        other.send(replyText(0x11, 0x02));
        device.send(replyText(0x8e, 0x27, 3));
        device.send("abc");
        other.send("<F5a0110020000006e>");
    }

    // The CMD, in hexadecimal, of each line, and "refused".
    static QStringList kindsOf(const ToolProcess& tool)
    {
        QStringList kinds;
        for (const QString& line : tool.lines()) {
            kinds << line.section(QStringLiteral(" CMD "), 1).left(2);
        }
        if (tool.error().contains(QLatin1String(" refused: "))) {
            kinds << QStringLiteral("refused");
        }
        return kinds;
    }

    UdpPeer other{QStringLiteral("127.0.0.9")};
};

TEST_F(Shown, IsChosenByCodeSenderAndKind)
{
    const struct {
        const char* options;
        const char* lastSaid;
        QStringList shown;
    } cases[] = {
        {"", "refused", words(QStringLiteral("10 11 8e refused"))},
        {"--cmd 0x10", "refused", words(QStringLiteral("10 refused"))},
        {"--cmd 0x11,142", "refused", words(QStringLiteral("11 8e refused"))},
        {"--from 127.0.0.9", "refused", words(QStringLiteral("11 refused"))},
        {"--from 127.0.0.1 --from 127.0.0.8", "CMD 8e", words(QStringLiteral("10 8e"))},
        {"--kind plain", "CMD 11", words(QStringLiteral("10 11"))},
        {"--kind block", "CMD 8e", words(QStringLiteral("8e"))},
        {"--kind refused", "refused", words(QStringLiteral("refused"))},
        {"--kind block,refused --from 127.0.0.9", "refused", words(QStringLiteral("refused"))},
        {"--kind plain --cmd 0x11 --from 127.0.0.9", "CMD 11", words(QStringLiteral("11"))},
    };
    for (const auto& choice : cases) {
        const auto tool = listen(choice.options);
        // Twice: what was not chosen of the first has been passed over when the second is shown.
        sendOfEachKind();
        sendOfEachKind();
        // Replies and refusals come to the tool by different ways.
        EXPECT_TRUE(eventually([&] {
            const QStringList kinds =
                tool->says(QLatin1String(choice.lastSaid)) ? kindsOf(*tool) : QStringList();
            return (tool->output() + tool->error().toUtf8()).count(choice.lastSaid) == 2 &&
                   std::all_of(choice.shown.begin(), choice.shown.end(),
                               [&kinds](const QString& kind) { return kinds.contains(kind); });
        })) << choice.options;
        tool->interrupt();
        EXPECT_EQ(tool->exitCode(), 0);
        QStringList seen = kindsOf(*tool);
        seen.removeDuplicates();
        EXPECT_EQ(seen, choice.shown) << choice.options << ": " << tool->output().constData();
    }
}

TEST_F(Shown, CountsOnlyWhatIsChosen)
{
    const auto tool = listen("--cmd 0x8e --count 2");
    sendOfEachKind();
    sendOfEachKind();
    EXPECT_EQ(tool->exitCode(), 0);
    EXPECT_EQ(kindsOf(*tool).mid(0, 2), words(QStringLiteral("8e 8e")));
    EXPECT_TRUE(tool->error().contains(QLatin1String("\n2 replies in ")));
}

TEST_F(Shown, RefusesAWrongChoice)
{
    for (const auto& [options, says] :
         {Words("--cmd 300", "--cmd: invalid value \"300\" (expected 0 to 255)"),
          Words("--kind odd", "--kind: invalid value \"odd\" (expected plain, block, refused)"),
          Words("--hex --cmd 1", "--cmd excludes --hex"),
          Words("--time never", "--time: invalid value \"never\" (expected day, absolute or "
                                "difference)")}) {
        const ToolRun run(
            words(QStringLiteral("listen %1 ").arg(address()) + QLatin1String(options)));
        EXPECT_EQ(run.code, 2) << options;
        EXPECT_TRUE(run.error.contains(QLatin1String(says))) << run.error.toStdString();
    }
}

TEST_F(Shown, HasAbsoluteTimesWithTheirZone)
{
    qputenv("TZ", "XYZ-5:30");
    const auto tool = listen("--time absolute --count 1");
    const auto json = QDateTime::currentMSecsSinceEpoch();
    device.send(replyText(0x10, 0x01));
    EXPECT_EQ(tool->exitCode(), 0);
    const QString time = tool->lines().value(0).section(QLatin1Char(' '), 0, 0);
    EXPECT_TRUE(time.endsWith(QLatin1String("+05:30"))) << time.toStdString();
    const qint64 shown = QDateTime::fromString(time, Qt::ISODateWithMs).toMSecsSinceEpoch();
    EXPECT_GE(shown, json);
    EXPECT_LE(shown, QDateTime::currentMSecsSinceEpoch());
    const auto object = listen("--json --count 1");
    device.send(replyText(0x10, 0x01));
    EXPECT_EQ(object->exitCode(), 0);
    EXPECT_TRUE(
        object->json().value(QStringLiteral("time")).toString().endsWith(QLatin1String("+05:30")));
    qunsetenv("TZ");
}

TEST_F(Shown, HasTheTimesBetweenLines)
{
    const auto tool = listen("--time difference");
    device.send(replyText(0x10, 0x01));
    ASSERT_TRUE(tool->says(QStringLiteral("CMD 10")));
    QElapsedTimer clock;
    clock.start();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const double least = static_cast<double>(clock.elapsed()) / 1000;
    device.send(replyText(0x11, 0x01));
    ASSERT_TRUE(tool->says(QStringLiteral("CMD 11")));
    tool->interrupt();
    EXPECT_EQ(tool->exitCode(), 0);
    EXPECT_TRUE(tool->lines().value(0).startsWith(QLatin1String("+0.000000 127.0.0.1 HEAD")))
        << tool->lines().value(0).toStdString();
    const QString second = tool->lines().value(1).section(QLatin1Char(' '), 0, 0);
    ASSERT_TRUE(second.startsWith(QLatin1Char('+')));
    EXPECT_GE(second.mid(1).toDouble(), least);
}

TEST_F(Shown, HasAllBytesAsTheyCome)
{
    const auto tool = listen("--hex");
    device.send(replyText(0x8e, 0x27, 3));
    device.send(QByteArray("a\0c", 3));
    other.send("noise");
    ASSERT_TRUE(tool->says(QStringLiteral("6e 6f 69 73 65")));
    tool->interrupt();
    EXPECT_EQ(tool->exitCode(), 0) << tool->error().toStdString();
    QStringList lines = tool->lines();
    ASSERT_EQ(lines.size(), 7) << tool->output().constData();
    EXPECT_TRUE(lines.at(0).endsWith(QLatin1String(" 127.0.0.1 19 bytes")))
        << lines.at(0).toStdString();
    EXPECT_TRUE(lines.at(1).startsWith(QLatin1String("  0000  3c 46 35 61 30 31 38 65 32 37 ")));
    EXPECT_TRUE(lines.at(1).endsWith(QLatin1String("  <F5a018e27070300")));
    EXPECT_TRUE(lines.at(2).endsWith(QLatin1String("  1a>")));
    EXPECT_TRUE(lines.at(3).endsWith(QLatin1String(" 127.0.0.1 3 bytes")));
    EXPECT_TRUE(lines.at(4).startsWith(QLatin1String("  0000  61 00 63 ")));
    EXPECT_TRUE(lines.at(5).endsWith(QLatin1String(" 127.0.0.9 5 bytes")));
    EXPECT_TRUE(tool->error().contains(QLatin1String("\n3 pieces in ")))
        << tool->error().toStdString();
    EXPECT_FALSE(tool->error().contains(QLatin1String("refused")));
    const auto chosen = listen("--hex --json --from 127.0.0.9 --count 2");
    device.send("one");
    other.send("two");
    device.send("three");
    other.send(QByteArray(1, '\0'));
    EXPECT_EQ(chosen->exitCode(), 0);
    ASSERT_EQ(chosen->lines().size(), 2);
    EXPECT_EQ(chosen->json().value(QStringLiteral("bytes")).toString(), QStringLiteral("74776f"));
    EXPECT_EQ(chosen->json().value(QStringLiteral("from")).toString(), QStringLiteral("127.0.0.9"));
    EXPECT_TRUE(chosen->lines().at(1).contains(QLatin1String("\"bytes\":\"00\"")));
}

QByteArray shownBytes(const ToolProcess& tool)
{
    QByteArray shown;
    for (const QString& line : tool.lines()) {
        const QJsonObject piece = QJsonDocument::fromJson(line.toUtf8()).object();
        shown += QByteArray::fromHex(piece.value(QStringLiteral("bytes")).toString().toLatin1());
    }
    return shown;
}

TEST(ShownSerial, HasAllBytesOfALine)
{
    SerialPeer device;
    for (const char* scheme : {"serial", "vela"}) {
        ToolProcess tool(words(QStringLiteral("listen %1://%2 --hex --json")
                                   .arg(QLatin1String(scheme), device.portName())));
        ASSERT_TRUE(tool.says(QStringLiteral("listening on")));
        QByteArray bytes;
        for (int i = 0; i < 256; ++i) {
            bytes += static_cast<char>(i);
        }
        ASSERT_TRUE(device.send(bytes));
        EXPECT_TRUE(eventually([&] {
            tool.says(QStringLiteral("bytes")); // collects the output
            return shownBytes(tool) == bytes;
        })) << scheme;
        tool.interrupt();
        EXPECT_EQ(tool.exitCode(), 0) << tool.error().toStdString();
    }
}

TEST(ShownOsd, HasAllBytesOfEachEndpoint)
{
    OsdPeer first("127.0.0.1");
    OsdPeer second("127.0.0.2");
    ToolProcess tool({QStringLiteral("listen"), first.link(), second.link(),
                      QStringLiteral("--hex"), QStringLiteral("--json"), QStringLiteral("--count"),
                      QStringLiteral("2")});
    ASSERT_TRUE(eventually([&] { return first.isConnected() && second.isConnected(); }));
    first.answer("OK!");
    second.answer("no");
    EXPECT_EQ(tool.exitCode(), 0) << tool.error().toStdString();
    EXPECT_TRUE(tool.output().contains("\"bytes\":\"4f4b21\",\"from\":\"127.0.0.1\""))
        << tool.output().constData();
    EXPECT_TRUE(tool.output().contains("\"bytes\":\"6e6f\",\"from\":\"127.0.0.2\""))
        << tool.output().constData();
}

#ifdef CORE_MANAGE_SHOWS_USB
TEST(ShownUsb, HasAllBytesOfAReport)
{
    HidTestbed testbed;
    EmulatedHid device(testbed, 0x04b4, 0x1008);
    ToolProcess tool(words(QStringLiteral("listen usb://04b4:1008 --hex --json --count 1")));
    ASSERT_TRUE(tool.says(QStringLiteral("listening on")));
    ASSERT_TRUE(device.sendPadded("noise"));
    EXPECT_EQ(tool.exitCode(), 0) << tool.error().toStdString();
    EXPECT_TRUE(shownBytes(tool).startsWith(QByteArray("noise\0\0", 7)))
        << tool.output().constData();
}
#endif

/// What a run of send that fails shows on a terminal with these variables.
QByteArray onTerminal(const QString& variables)
{
    QProcess terminal;
    terminal.start(
        QStringLiteral("script"),
        {QStringLiteral("-qec"),
         QStringLiteral("env -u NO_COLOR TERM=xterm %1 %2 send udp://127.0.0.1 --cmd 256")
             .arg(variables, builtTool()),
         QStringLiteral("/dev/null")});
    EXPECT_TRUE(eventually([&terminal] { return terminal.state() == QProcess::NotRunning; }));
    return terminal.readAllStandardOutput();
}

TEST(Colour, IsShownOnATerminalUnlessItIsNotWanted)
{
    const QByteArray wrong = "coremanage: --cmd: invalid value \"256\" (expected 0 to 255)";
    EXPECT_EQ(onTerminal({}), "\x1b[31m" + wrong + "\x1b[0m\r\n");
    EXPECT_EQ(onTerminal(QStringLiteral("NO_COLOR=1")), wrong + "\r\n");
    EXPECT_EQ(onTerminal(QStringLiteral("TERM=dumb")), wrong + "\r\n");
    EXPECT_EQ(ToolRun(words(QStringLiteral("send udp://127.0.0.1 --cmd 256"))).error.toUtf8(),
              wrong + '\n')
        << "in a pipe";
}

TEST_F(Shown, IsAnObjectForEveryExitCode)
{
    const auto answered = send("--cmd 1 --timeout 60000 --json");
    device.receive();
    device.send(replyText(0x01, 0x00));
    EXPECT_EQ(answered->exitCode(), 0);
    EXPECT_EQ(answered->lines().size(), 1);
    EXPECT_EQ(answered->json().value(QStringLiteral("ok")).toBool(false), true);
    EXPECT_EQ(answered->json().value(QStringLiteral("code")).toInt(-1), 0);
    const QString before = QStringLiteral("send %1 ").arg(address());
    for (const auto& [arguments, code] :
         {Ended(before + QLatin1String("--cmd 1 --timeout 50 --json"), 1),
          Ended(before + QLatin1String("--cmd 1 --timeout 50 --count 1 --json"), 1),
          Ended(before + QLatin1String("--cmd 256 --json"), 2),
          Ended(before + QLatin1String("--json --frob"), 2),
          Ended(before + QLatin1String("--json"), 2), Ended(QStringLiteral("send --json"), 2),
          Ended(QStringLiteral("send nowhere --cmd 1 --json"), 2),
          Ended(QStringLiteral("send serial:///dev/ttyNone --cmd 1 --json"), 3),
          Ended(QStringLiteral("send osd://127.0.0.1:1 --ch2 1 --json"), 3),
          Ended(QStringLiteral("send osd://127.0.0.1:1 --ch2 1 --count 2 --json"), 3)}) {
        ToolProcess tool(words(arguments));
        EXPECT_EQ(tool.exitCode(), code) << arguments.toStdString();
        const QStringList lines = tool.lines();
        ASSERT_FALSE(lines.isEmpty()) << arguments.toStdString();
        const QJsonObject last = QJsonDocument::fromJson(lines.back().toUtf8()).object();
        EXPECT_EQ(last.value(QStringLiteral("ok")).toBool(true), false) << arguments.toStdString();
        EXPECT_EQ(last.value(QStringLiteral("code")).toInt(-1), code);
        EXPECT_EQ(
            QStringLiteral("coremanage: %1\n").arg(last.value(QStringLiteral("error")).toString()),
            tool.error());
    }
}

TEST(Shortcut, IsAnsweredWithWhatWasMeant)
{
    for (const auto& [typed, meant] :
         {Words("help send", "send --help"), Words("help", "--help")}) {
        const ToolRun run(words(QLatin1String(typed)));
        EXPECT_EQ(run.code, 0) << typed;
        EXPECT_EQ(run.output, ToolRun(words(QLatin1String(meant))).output) << typed;
    }
    for (const auto& [typed, says] :
         {Words("sned x --cmd 1", "no subcommand \"sned\" (did you mean send?)"),
          Words("lisen", "no subcommand \"lisen\" (did you mean listen?)"),
          Words("simulator", "no subcommand \"simulator\" (did you mean simulate?)"),
          Words("dev", "no subcommand \"dev\" (did you mean devices?)"),
          Words("/dev/ttyUSB0",
                "\"/dev/ttyUSB0\" is a link (did you mean coremanage listen /dev/ttyUSB0?)"),
          Words("udp://127.0.0.1", "(did you mean coremanage listen udp://127.0.0.1?)"),
          Words("listen /dev/ttyNone", "serial:///dev/ttyNone: there is no /dev/ttyNone"),
          Words("listen /dev/hidraw0",
                "link: invalid value \"/dev/hidraw0\" (expected usb://VENDOR:PRODUCT; ")}) {
        const ToolRun run(words(QLatin1String(typed)));
        EXPECT_NE(run.code, 0) << typed;
        EXPECT_TRUE(run.error.contains(QLatin1String(says))) << run.error.toStdString();
        EXPECT_EQ(run.error.count(QLatin1Char('\n')), 1);
    }
}

TEST(Shortcut, OpensABarePort)
{
    ToolProcess simulator(words(QStringLiteral("simulate serial://")));
    ASSERT_TRUE(simulator.says(QStringLiteral("\n")));
    const QString link = simulator.lines().value(0).section(QLatin1Char(' '), -1);
    const QString bare = QString(link).remove(QStringLiteral("serial://"));
    ASSERT_TRUE(bare.startsWith(QLatin1String("/dev/")));
    const ToolRun run(words(QStringLiteral("send %1 --cmd 1 --timeout 60000").arg(bare)));
    EXPECT_EQ(run.code, 0) << run.error.toStdString();
    EXPECT_TRUE(run.output.contains("reply from "));
}

} // namespace
