// SPDX-License-Identifier: MIT
// Many commands in one run of send.
#include "osdpeer.h"
#include "tests/transports/serialpeer.h"
#include "udptool.h"
#ifdef CORE_MANAGE_SHOWS_USB
#include "emulatedhid.h"
#endif

#include <QElapsedTimer>
#include <QJsonDocument>

namespace
{

QJsonObject objectOf(const QString& line)
{
    return QJsonDocument::fromJson(line.toUtf8()).object();
}

QJsonObject summaryOf(const ToolProcess& tool)
{
    return objectOf(tool.lines().value(tool.lines().size() - 1))
        .value(QStringLiteral("summary"))
        .toObject();
}

int countOf(const QJsonObject& summary, const char* what)
{
    return summary.value(QLatin1String(what)).toInt(-1);
}

class SendRun : public UdpTool
{
protected:
    // Takes a command and answers it.
    void answer(const QByteArray& command, const QByteArray& reply)
    {
        EXPECT_EQ(device.receive().bytes, command);
        device.send(reply);
    }
};

const QByteArray first = "<T0000010000000001>";
const QByteArray second = "<T0000020000000002>";

TEST_F(SendRun, RepeatsACommandAndSumsUp)
{
    QElapsedTimer clock;
    clock.start();
    const auto tool = send("--cmd 1 --every 30 --count 5 --timeout 5000");
    EXPECT_EQ(device.receive().bytes, first);
    device.send(replyText(0x01, 0x00));
    answer(first, replyText(0x01, 0x00));
    answer(first, replyText(0x01, 0x01)); // another reply than the first
    EXPECT_EQ(device.receive().bytes, first);
    EXPECT_TRUE(tool->says(QStringLiteral("no reply within 5000 ms")));
    answer(first, replyText(0x01, 0x00));
    EXPECT_EQ(tool->exitCode(), 1) << "one has had no reply";
    EXPECT_GE(clock.elapsed(), 3 * 30 + 5000);
    EXPECT_FALSE(device.hasDatagram());
    const QStringList lines = tool->lines();
    ASSERT_EQ(lines.size(), 5 + 2) << tool->output().constData();
    const QRegularExpression form(
        QStringLiteral("^\\d\\d:\\d\\d:\\d\\d\\.\\d{3} #1 \\d+\\.\\d{3} ms 127\\.0\\.0\\.1 HEAD "));
    EXPECT_TRUE(form.match(lines.at(0)).hasMatch()) << lines.at(0).toStdString();
    EXPECT_FALSE(lines.at(1).contains(QLatin1String("differs")));
    EXPECT_TRUE(lines.at(2).endsWith(QLatin1String(" (differs)"))) << lines.at(2).toStdString();
    EXPECT_TRUE(lines.at(3).contains(QStringLiteral(" #4 %1: no reply").arg(address())));
    EXPECT_TRUE(lines.at(5).startsWith(
        address() + QLatin1String(": 5 sent, 4 answered, 1 lost, 1 replies that differ, ")))
        << lines.at(5).toStdString();
    EXPECT_TRUE(lines.at(6).startsWith(QLatin1String("reply time min/median/p99/max ")));
    EXPECT_EQ(
        tool->error(),
        QStringLiteral("coremanage: %1: 1 of 5 commands without their reply\n").arg(address()));
}

TEST_F(SendRun, SumsUpAsJson)
{
    const auto tool = send("--cmd 1 --count 3 --timeout 5000 --json");
    answer(first, replyText(0x01, 0x00));
    EXPECT_EQ(device.receive().bytes, first);
    answer(first, replyText(0x01, 0x00));
    EXPECT_EQ(tool->exitCode(), 1);
    ASSERT_EQ(tool->lines().size(), 4);
    const QJsonObject lost = objectOf(tool->lines().at(1));
    EXPECT_EQ(lost.value(QStringLiteral("number")).toInt(), 2);
    EXPECT_EQ(lost.value(QStringLiteral("ok")).toBool(true), false);
    EXPECT_EQ(lost.value(QStringLiteral("code")).toInt(), 1);
    EXPECT_TRUE(lost.value(QStringLiteral("error")).toString().contains(QLatin1String("no reply")));
    EXPECT_EQ(objectOf(tool->lines().at(2)).value(QStringLiteral("ok")).toBool(false), true);
    const QJsonObject end = objectOf(tool->lines().at(3));
    EXPECT_EQ(end.value(QStringLiteral("code")).toInt(), 1);
    EXPECT_FALSE(end.value(QStringLiteral("error")).toString().isEmpty());
    const QJsonObject summary = summaryOf(*tool);
    EXPECT_EQ(countOf(summary, "sent"), 3);
    EXPECT_EQ(countOf(summary, "answered"), 2);
    EXPECT_EQ(countOf(summary, "lost"), 1);
    EXPECT_EQ(countOf(summary, "differ"), 0);
    EXPECT_EQ(countOf(summary, "unawaited"), 0);
    double before = 0;
    for (const char* time : {"min_ms", "median_ms", "p99_ms", "max_ms"}) {
        const double value = summary.value(QLatin1String(time)).toDouble(-1);
        EXPECT_GE(value, before) << time;
        before = value;
    }
    EXPECT_LT(before, 5000) << "the one without a reply counts for nothing here";
}

TEST_F(SendRun, GoesOnUntilCtrlC)
{
    const auto tool = send("--cmd 1 --every 0 --timeout 60000 --json");
    for (int i = 0; i < 20; ++i) {
        answer(first, replyText(0x01, 0x00));
    }
    EXPECT_EQ(device.receive().bytes, first);
    tool->interrupt();
    EXPECT_EQ(tool->exitCode(), 0) << tool->error().toStdString();
    EXPECT_EQ(countOf(summaryOf(*tool), "sent"), 21);
    EXPECT_EQ(countOf(summaryOf(*tool), "answered"), 20);
    EXPECT_EQ(countOf(summaryOf(*tool), "lost"), 0) << "it had no time";
}

TEST_F(SendRun, CountsWhatNothingAwaited)
{
    const auto tool = send("--cmd 1 --every 8000 --count 2 --timeout 60000 --json");
    answer(first, replyText(0x01, 0x00));
    ASSERT_TRUE(tool->says(QStringLiteral("\"number\":1")));
    device.send(replyText(0x79, 0x0c));
    device.send(replyText(0x79, 0x0c));
    answer(first, replyText(0x01, 0x00));
    EXPECT_EQ(tool->exitCode(), 0) << tool->error().toStdString();
    EXPECT_EQ(countOf(summaryOf(*tool), "unawaited"), 2);
    EXPECT_EQ(countOf(summaryOf(*tool), "differ"), 0);
}

TEST_F(SendRun, KeepsItsRate)
{
    QElapsedTimer clock;
    clock.start();
    const auto tool = send("--cmd 1 --rate 100 --count 21 --timeout 0 -q");
    EXPECT_EQ(tool->exitCode(), 0) << tool->error().toStdString();
    EXPECT_GE(clock.elapsed(), 20 * 10);
    for (int i = 0; i < 21; ++i) {
        EXPECT_EQ(device.receive().bytes, first);
    }
    EXPECT_FALSE(device.hasDatagram());
    EXPECT_EQ(tool->lines().size(), 1) << "only the summary";
}

TEST_F(SendRun, EndsAfterItsTime)
{
    const auto tool = send("--cmd 1 --every 60000 --for 1 --timeout 60000");
    answer(first, replyText(0x01, 0x00));
    EXPECT_EQ(tool->exitCode(), 0) << tool->error().toStdString();
    EXPECT_FALSE(device.hasDatagram());
}

TEST_F(SendRun, TakesCommandsAsCsv)
{
    const auto tool = send("--file - --timeout 60000", "cmd, DAT1 ,block\r\n"
                                                       "1,,\n"
                                                       "\n"
                                                       "0x8e,0x27,\"01 02\"\r\n");
    answer(first, replyText(0x01, 0x00));
    answer(QByteArray("<T00008e27000200b7>\x01\x02"), replyText(0x01, 0x00));
    EXPECT_EQ(tool->exitCode(), 0) << tool->error().toStdString();
    ASSERT_EQ(tool->lines().size(), 4);
    EXPECT_TRUE(tool->lines().at(1).contains(QLatin1String(" #2 <T00008e27000200b7> + block 2 ")))
        << tool->lines().at(1).toStdString();
    EXPECT_TRUE(tool->lines().at(2).contains(QLatin1String("2 sent, 2 answered, 0 lost, 0 ")));
}

TEST_F(SendRun, TakesCommandsAsJsonLines)
{
    const auto tool = send("--file - --count 4 --timeout 60000 --json",
                           "{\"cmd\": 1}\n"
                           "{\"cmd\": \"0x02\", \"block_length\": 0}\n"
                           "{\"raw\": \"00ff\"}\n");
    answer(first, replyText(0x01, 0x00));
    answer(second, replyText(0x01, 0x00));
    answer(QByteArray("\0\xff", 2), replyText(0x01, 0x00));
    answer(first, replyText(0x01, 0x00)); // from the beginning
    EXPECT_EQ(tool->exitCode(), 0) << tool->error().toStdString();
    EXPECT_EQ(countOf(summaryOf(*tool), "answered"), 4);
}

TEST_F(SendRun, TakesWhatTheToolPrints)
{
    const QByteArray frames = ToolRun(words(QStringLiteral("encode --cmd 1 --json"))).output;
    const auto encoded = send("--file - --timeout 60000 --json", frames);
    answer(first, replyText(0x01, 0x00));
    EXPECT_EQ(encoded->exitCode(), 0) << encoded->error().toStdString();
    const auto fields =
        send("--cmd 0x8e --dat1 0x27 --block 0102 --count 1 --timeout 60000 --json");
    const QByteArray frame = "<T00008e27000200b7>\x01\x02";
    answer(frame, replyText(0x01, 0x00));
    EXPECT_EQ(fields->exitCode(), 0) << fields->error().toStdString();
    const auto again = send("--file - --timeout 60000", encoded->output() + fields->output());
    answer(first, replyText(0x01, 0x00));
    answer(frame, replyText(0x01, 0x00));
    EXPECT_EQ(again->exitCode(), 0) << again->error().toStdString();
    ToolProcess simulator(words(QStringLiteral("simulate udp://127.0.0.1:0 --count 1 --json")));
    ASSERT_TRUE(simulator.says(QStringLiteral("\n")));
    const QString link = simulator.json().value(QStringLiteral("simulating")).toString();
    EXPECT_EQ(ToolRun(words(QStringLiteral("send %1 --cmd 2 --timeout 60000").arg(link))).code, 0);
    EXPECT_EQ(simulator.exitCode(), 0);
    const auto simulated = send("--file - --timeout 60000", simulator.output());
    answer(second, replyText(0x01, 0x00));
    EXPECT_EQ(simulated->exitCode(), 0) << simulated->error().toStdString();
}

TEST_F(SendRun, RefusesAWrongFileBeforeAnythingIsSent)
{
    const struct {
        const char* content;
        const char* says;
    } cases[] = {
        {"", "--file: invalid value \"-\" (expected commands, as JSON lines or as CSV"},
        {"cmd\n", "(expected commands"},
        {"cmd,dat1\n1,2\n256,1\n", "line 3 of -: --cmd: invalid value \"256\" (expected 0 to 255)"},
        {"cmd,frob\n1,2\n", "line 2 of -: field: invalid value \"frob\" (expected block, "},
        {"cmd\n1,2\n", "line 2 of -: 2 values below 1 names"},
        {"dat1\n1\n", "line 2 of -: --cmd is missing"},
        {"cmd,ch2\n1,1\n", "line 2 of -: --ch2: text frames do not carry it"},
        {"{\"cmd\":1}\n{\"cmd\":1.5}\n", "line 2 of -: --cmd: invalid value \"1.5\""},
        {"{\"cmd\":1}\n{\"cmd\":\n", "line 2 of -: no JSON object: "},
        {"{\"cmd\":1,\"raw\":\"00\"}", "line 1 of -: raw bytes and fields"},
        {"{\"raw\":\"0\"}", "line 1 of -: raw: invalid value \"0\""},
    };
    for (const auto& wrong : cases) {
        const auto tool = send("--file -", wrong.content);
        EXPECT_EQ(tool->exitCode(), 2) << wrong.content;
        EXPECT_TRUE(tool->error().contains(QLatin1String(wrong.says)))
            << wrong.says << ": " << tool->error().toStdString();
    }
    EXPECT_FALSE(device.hasDatagram());
}

TEST_F(SendRun, ShowsAProgressBarOnATerminal)
{
    const QTemporaryDir directory;
    QProcess terminal;
    terminal.start(
        QStringLiteral("script"),
        {QStringLiteral("-qec"),
         QStringLiteral("%1 send %2 --cmd 1 --count 3 -q --timeout 60000 --log %3")
             .arg(QStringLiteral(COREMANAGE), address(), directory.filePath(QStringLiteral("log"))),
         QStringLiteral("/dev/null")});
    ASSERT_TRUE(terminal.waitForStarted());
    for (int i = 0; i < 3; ++i) {
        answer(first, replyText(0x01, 0x00));
    }
    ASSERT_TRUE(eventually([&terminal] { return terminal.state() == QProcess::NotRunning; }));
    EXPECT_EQ(terminal.exitCode(), 0);
    const QByteArray seen = terminal.readAllStandardOutput();
    EXPECT_TRUE(seen.contains("\r[##########....................] 1 of 3, 0 lost, "))
        << seen.constData();
}

TEST_F(SendRun, SendsTenThousandCommandsOfAFile)
{
    ToolProcess simulator(words(QStringLiteral("simulate udp://127.0.0.1:0 --json -q")));
    ASSERT_TRUE(simulator.says(QStringLiteral("\n")));
    const QString link = simulator.json().value(QStringLiteral("simulating")).toString();
    constexpr int many = 10000;
    QByteArray commands = "cmd,dat1,dat2\n";
    for (int i = 0; i < many; ++i) {
        commands +=
            "0x10," + QByteArray::number(i & 0xff) + ',' + QByteArray::number(i >> 8) + '\n';
    }
    ToolProcess tool({QStringLiteral("send"), link, QStringLiteral("--file"), QStringLiteral("-"),
                      QStringLiteral("--timeout"), QStringLiteral("60000"),
                      QStringLiteral("--json")},
                     commands);
    EXPECT_EQ(tool.exitCode(), 0) << tool.error().toStdString();
    EXPECT_EQ(countOf(summaryOf(tool), "answered"), many);
    ASSERT_EQ(tool.lines().size(), many + 1);
    const QJsonObject last = objectOf(tool.lines().at(many - 1));
    EXPECT_EQ(last.value(QStringLiteral("sent")).toObject().value(QStringLiteral("dat2")).toInt(),
              (many - 1) >> 8);
    simulator.interrupt();
    EXPECT_EQ(simulator.exitCode(), 0);
    EXPECT_TRUE(simulator.error().startsWith(QStringLiteral("%1 commands in ").arg(many)))
        << simulator.error().toStdString();
}

TEST(SendRunSerial, GoesOnOverASerialLine)
{
    for (const char* scheme : {"serial", "vela"}) {
        ToolProcess simulator(words(QStringLiteral("simulate %1://").arg(QLatin1String(scheme))));
        ASSERT_TRUE(simulator.says(QStringLiteral("\n")));
        const QString link = simulator.lines().value(0).section(QLatin1Char(' '), -1);
        ToolProcess tool({QStringLiteral("send"), link, QStringLiteral("--cmd"),
                          QStringLiteral("0x10"), QStringLiteral("--count"), QStringLiteral("50"),
                          QStringLiteral("--timeout"), QStringLiteral("60000"),
                          QStringLiteral("--json")});
        EXPECT_EQ(tool.exitCode(), 0) << tool.error().toStdString();
        EXPECT_EQ(countOf(summaryOf(tool), "answered"), 50);
    }
}

TEST(SendRunOsd, TakesCommandsAsCsv)
{
    OsdPeer endpoint("127.0.0.1");
    ToolProcess tool({QStringLiteral("send"), endpoint.link(), QStringLiteral("--file"),
                      QStringLiteral("-"), QStringLiteral("--timeout"), QStringLiteral("60000")},
                     "ch2,text,ch10\n"
                     ",\"Gate \"\"7\"\", left\" ,0x0a\n"
                     "2\n");
    const QByteArray quoted = QByteArray(6, '\0') + "Gate \"7\", left" + QByteArray("\0\n", 2);
    EXPECT_EQ(endpoint.receive(quoted.size()), quoted);
    endpoint.answer("OK!");
    EXPECT_EQ(endpoint.receive(8), QByteArray("\2\0\0\0\0\0\0\0", 8));
    endpoint.answer("OK!");
    EXPECT_EQ(tool.exitCode(), 0) << tool.error().toStdString();
}

// The endpoints answer one after the other, and each round is over when both have.
TEST(SendRunOsd, AsksEveryEndpointEachTime)
{
    OsdPeer left("127.0.0.1");
    OsdPeer right("127.0.0.2");
    ToolProcess tool({QStringLiteral("send"), left.link(), right.link(), QStringLiteral("--ch2"),
                      QStringLiteral("1"), QStringLiteral("--count"), QStringLiteral("3"),
                      QStringLiteral("--timeout"), QStringLiteral("60000"),
                      QStringLiteral("--json")});
    for (int i = 0; i < 3; ++i) {
        for (OsdPeer* peer : {&left, &right}) {
            EXPECT_EQ(peer->receive(8), QByteArray("\1\0\0\0\0\0\0\0", 8));
        }
        left.answer("OK!");
        right.answer("OK!");
    }
    EXPECT_EQ(tool.exitCode(), 0) << tool.error().toStdString();
    EXPECT_EQ(countOf(summaryOf(tool), "answered"), 3);
    EXPECT_EQ(countOf(summaryOf(tool), "differ"), 0);
}

#ifdef CORE_MANAGE_SHOWS_USB
TEST(SendRunUsb, GoesOnOverReports)
{
    HidTestbed testbed;
    EmulatedHid device(testbed, 0x04b4, 0x1008);
    ToolProcess tool(
        words(QStringLiteral("send usb://04b4:1008 --cmd 1 --count 3 --timeout 60000 --json")));
    for (std::size_t i = 1; i <= 3; ++i) {
        ASSERT_TRUE(eventually([&] { return device.written().size() == i; }));
        ASSERT_TRUE(device.sendPadded(replyText(0x01, static_cast<int>(i))));
    }
    EXPECT_EQ(tool.exitCode(), 0) << tool.error().toStdString();
    EXPECT_EQ(countOf(summaryOf(tool), "answered"), 3);
    EXPECT_EQ(countOf(summaryOf(tool), "differ"), 2);
}
#endif

TEST(SendRunSerial, EndsWithTheLine)
{
    SerialPeer device;
    ToolProcess tool(
        words(QStringLiteral("send serial://%1 --cmd 1 --every 10 --timeout 60000 --json")
                  .arg(device.portName())));
    ASSERT_TRUE(eventually([&device] { return device.received().size() >= 19; }));
    device.hangUp();
    EXPECT_EQ(tool.exitCode(), 1);
    EXPECT_TRUE(tool.error().startsWith(
        QStringLiteral("coremanage: serial://%1: the ").arg(device.portName())))
        << tool.error().toStdString();
    EXPECT_EQ(countOf(summaryOf(tool), "lost"), 1);
}

} // namespace
