// SPDX-License-Identifier: MIT
// What the tool says when nothing comes back, and what it finds before anything is sent.
#include "networkcable.h"
#include "osdpeer.h"
#include "replybytes.h"
#include "tests/transports/serialpeer.h"
#include "tests/transports/udppeer.h"
#include "toolprocess.h"

#include <gtest/gtest.h>

#include <QElapsedTimer>
#include <QJsonDocument>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

/// The tool's standard error when it sends to the link and gets no reply.
QString silenceOf(const QString& link, const char* fields = "--cmd 1 --timeout 200")
{
    const ToolRun run(words(QStringLiteral("send %1 %2").arg(link, QLatin1String(fields))));
    EXPECT_EQ(run.code, 1) << run.error.toStdString();
    EXPECT_EQ(run.error.count(QLatin1Char('\n')), 1) << run.error.toStdString();
    return run.error;
}

/// What doctor finds; every line. \a code is how it is to end.
QString findings(const QString& link, int code, const QStringList& command = {builtTool()})
{
    const ToolRun run({QStringLiteral("doctor"), link}, {}, command);
    EXPECT_EQ(run.code, code) << run.output.toStdString() << run.error.toStdString();
    return QString::fromUtf8(run.output);
}

QString serialLink(const SerialPeer& device)
{
    return QStringLiteral("serial://") + device.portName();
}

/// A program under this name that has a file open, and does nothing with it.
class Holder
{
public:
    Holder(const QString& name, const QString& path)
    {
        const QString copy = directory.filePath(name);
        QFile::copy(QStringLiteral("/bin/sleep"), copy);
        process.setStandardInputFile(path);
        process.start(copy, {QStringLiteral("1000")});
        process.waitForStarted();
    }
    ~Holder()
    {
        process.kill();
        process.waitForFinished();
    }
    Holder(const Holder&) = delete;
    Holder& operator=(const Holder&) = delete;

    QString name() const
    {
        return QStringLiteral("process %1 (%2)")
            .arg(process.processId())
            .arg(process.program().section(QLatin1Char('/'), -1));
    }

private:
    const QTemporaryDir directory;
    QProcess process;
};

::testing::AssertionResult contains(const QString& text, const QString& part)
{
    return text.contains(part) ? ::testing::AssertionSuccess()
                               : ::testing::AssertionFailure()
                                     << '"' << text.toStdString() << "\" lacks \""
                                     << part.toStdString() << '"';
}

::testing::AssertionResult contains(const QString& text, const char* part)
{
    return contains(text, QLatin1String(part));
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool sanitized = true;
#else
constexpr bool sanitized = false;
#endif

} // namespace

/// A cable to a machine that does nothing by itself, and has no address that this one knows.
class SilentNetwork : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (!netns::isolated()) {
            GTEST_SKIP() << "needs the right to make a network namespace (root or user namespaces)";
        }
        cable = std::make_unique<NetworkCable>();
        ASSERT_TRUE(cable->exists());
        ASSERT_TRUE(netns::run("ip link set host0 address 02:00:00:00:00:01 && "
                               "ip addr add 100.100.100.1/24 dev host0"));
    }

    void plugIn() const { ASSERT_TRUE(cable->plugIn()); }

    /// The device is at 100.100.100.7, and has sent a datagram from there, or from another address,
    /// to a port of this machine.
    void sendFromDevice(const char* port, const char* address = "100.100.100.7/24") const
    {
        ASSERT_TRUE(cable->runOnDevice(QByteArray("ip addr add ") + address + " dev device0"));
        const QByteArray route = "ip route replace 100.100.100.1 dev device0";
        ASSERT_TRUE(cable->runOnDevice(route));
        ASSERT_TRUE(
            cable->runOnDevice("ip neigh add 100.100.100.1 lladdr 02:00:00:00:00:01 dev device0"));
        ASSERT_TRUE(cable->runOnDevice(QByteArray("bash -c 'echo -n x >/dev/udp/100.100.100.1/") +
                                       port + "'"));
    }

    static bool addFirewall(const char* hook, const char* rule)
    {
        return geteuid() == 0 &&
               netns::run(QStringLiteral("nft 'table inet t { chain c { type filter hook %1 "
                                         "priority 0; %2; }; }'")
                              .arg(QLatin1String(hook), QLatin1String(rule))
                              .toLocal8Bit()
                              .constData());
    }

    std::unique_ptr<NetworkCable> cable;
};

TEST_F(SilentNetwork, NobodyAnswersArp)
{
    plugIn();
    EXPECT_TRUE(contains(silenceOf(QStringLiteral("udp://100.100.100.7")),
                         ": no reply within 200 ms: 100.100.100.7 does not answer ARP: is it on"));
    EXPECT_TRUE(contains(findings(QStringLiteral("udp://100.100.100.7"), 1),
                         "WRONG 100.100.100.7 has not answered ARP lately\n      switch it on"));
    const ToolRun osd(words(QStringLiteral("send osd://100.100.100.8 --ch2 1 --data 00")));
    EXPECT_EQ(osd.code, 3);
    EXPECT_TRUE(contains(osd.error, "100.100.100.8 does not answer ARP"));
}

TEST_F(SilentNetwork, TheGatewayDoesNotAnswerArp)
{
    plugIn();
    ASSERT_TRUE(netns::run("ip route add 10.7.0.0/16 via 100.100.100.9"));
    EXPECT_TRUE(contains(silenceOf(QStringLiteral("udp://10.7.0.1")),
                         "the gateway 100.100.100.9 does not answer ARP"));
    EXPECT_TRUE(contains(findings(QStringLiteral("udp://10.7.0.2"), 1),
                         "fine  host0 leads to it, through 100.100.100.9\n"));
}

TEST_F(SilentNetwork, TheReplyGoesToAnotherPort)
{
    plugIn();
    ToolProcess tool(words(QStringLiteral("listen udp://100.100.100.7")));
    ASSERT_TRUE(tool.says(QStringLiteral("listening on")));
    sendFromDevice("5105");
    ASSERT_TRUE(eventually([] {
        return netns::run("grep '^Udp: [0-9]' /proc/net/snmp | grep -qv '^Udp: [0-9]* 0 '");
    }));
    tool.interrupt();
    EXPECT_EQ(tool.exitCode(), 0);
    EXPECT_TRUE(contains(tool.error(), " s: a datagram came to a port that no program has once: "
                                       "does it reply to port 5104?\n"));
}

TEST_F(SilentNetwork, TheReplyComesFromAnotherNetwork)
{
    ASSERT_TRUE(netns::run("echo 1 >/proc/sys/net/ipv4/conf/host0/rp_filter"));
    plugIn();
    ToolProcess tool(words(QStringLiteral("listen udp://100.100.100.7")));
    ASSERT_TRUE(tool.says(QStringLiteral("listening on")));
    sendFromDevice("5104", "10.9.9.9/24");
    ASSERT_TRUE(eventually([] {
        return netns::run("awk '/^TcpExt/ { if (!n) { for (i = 1; i <= NF; ++i) if ($i == "
                          "\"IPReversePathFilter\") n = i } else exit !$n }' /proc/net/netstat");
    }));
    tool.interrupt();
    EXPECT_EQ(tool.exitCode(), 0);
    EXPECT_TRUE(contains(tool.error(), " s: a packet came in where the route to its sender does "
                                       "not go out, and the reverse path filter dropped it once"));
}

TEST_F(SilentNetwork, AFirewallDropsTheReply)
{
    if (!addFirewall("input", "udp dport 5104 drop")) {
        GTEST_SKIP() << "needs nftables, as root";
    }
    UdpPeer device;
    const QString link = QStringLiteral("udp://127.0.0.1:%1").arg(device.port());
    ToolProcess tool(words(QStringLiteral("send %1 --cmd 1 --timeout 5000").arg(link)));
    device.receive();
    device.send(replyText(1, 0));
    EXPECT_EQ(tool.exitCode(), 1);
    EXPECT_TRUE(contains(tool.error(),
                         "a packet came and no program got it once: does a firewall here drop "
                         "it? its rules: udp dport 5104 drop\n"));
    EXPECT_TRUE(contains(findings(link, 0), "note  a firewall here drops: udp dport 5104 drop\n"));
}

TEST_F(SilentNetwork, AFirewallDropsTheCommand)
{
    if (!addFirewall("output", "udp dport 1000 drop")) {
        GTEST_SKIP() << "needs nftables, as root";
    }
    EXPECT_TRUE(
        contains(silenceOf(QStringLiteral("udp://127.0.0.1")),
                 "the system did not take it: not sent; is the network up, the device there?; its "
                 "rules: udp dport 1000 drop\n"));
}

TEST_F(SilentNetwork, IsDownOrUnplugged)
{
    const QString link = QStringLiteral("udp://100.100.100.7");
    const QString down = findings(link, 1);
    EXPECT_TRUE(contains(down, "WRONG no way to 100.100.100.7: "));
    EXPECT_TRUE(contains(down, "sudo ip link set host0 up\n"));
    ASSERT_TRUE(netns::run("ip link set host0 up"));
    EXPECT_TRUE(contains(findings(link, 1), "WRONG host0 has no link\n      plug the cable in"));
    plugIn();
    const qint64 sentBefore = datagramsSent();
    EXPECT_TRUE(contains(findings(link, 0), "fine  host0 leads to it\n"));
    EXPECT_TRUE(
        contains(findings(QStringLiteral("udp://10.0.0.1"), 1),
                 "sudo ip addr add ADDRESS/24 dev host0, with a free address of the device's"));
    EXPECT_EQ(datagramsSent(), sentBefore);
}

TEST(UdpSilence, NobodyHasThePort)
{
    EXPECT_TRUE(contains(silenceOf(QStringLiteral("udp://127.0.0.1:9")),
                         "no reply within 200 ms: ICMP said unreachable once: is 9 its port?\n"));
}

TEST(UdpSilence, AnotherProgramHasTheLocalPort)
{
    ToolProcess other(words(QStringLiteral("listen udp://127.0.0.1")));
    ASSERT_TRUE(other.says(QStringLiteral("listening on")));
    EXPECT_TRUE(
        contains(findings(QStringLiteral("udp://127.0.0.1"), 1),
                 QStringLiteral("WRONG local port 5104, for replies: process %1 (coremanage) has "
                                "it\n      end that program\n")
                     .arg(other.id())));
    other.interrupt();
    EXPECT_EQ(other.exitCode(), 0);
    EXPECT_TRUE(contains(other.error(), " s: nothing came\n"));
}

TEST(OsdSilence, TheEndpointRefuses)
{
    const ToolRun run(words(QStringLiteral("send osd://127.0.0.1:9 --ch2 1 --data 00")));
    EXPECT_EQ(run.code, 3);
    EXPECT_TRUE(contains(run.error, "a connection was refused once: is 9 its port?\n"));
}

TEST(OsdSilence, WhatCameIsNoAcknowledgement)
{
    OsdPeer first("127.0.0.1");
    OsdPeer second("127.0.0.2");
    ToolProcess tool({QStringLiteral("send"), first.link(), second.link(), QStringLiteral("--ch2"),
                      QStringLiteral("1"), QStringLiteral("--data"), QStringLiteral("00"),
                      QStringLiteral("--timeout"), QStringLiteral("5000")});
    first.receive(1);
    second.receive(1);
    second.answer("noise, no acknowledgement");
    EXPECT_EQ(tool.exitCode(), 1);
    EXPECT_TRUE(contains(tool.error(),
                         "127.0.0.1 gave no reply within 5000 ms: nothing came; "
                         "127.0.0.2 gave no reply within 5000 ms: 25 bytes came and none was "
                         "a reply: 6e 6f 69 73 65 2c 20 6e 6f 20 61 63 6b 6e 6f 77 ...\n"));
}

TEST(SerialSilence, NothingCame)
{
    const SerialPeer device;
    EXPECT_TRUE(contains(silenceOf(serialLink(device)), "no reply within 200 ms: nothing came\n"));
    EXPECT_TRUE(contains(findings(serialLink(device), 0), "may be opened\n"));
}

TEST(SerialSilence, WhatCameWasNoReply)
{
    SerialPeer device;
    ToolProcess tool(
        words(QStringLiteral("send %1?baud=9600 --cmd 1 --timeout 5000").arg(serialLink(device))));
    ASSERT_TRUE(eventually([&device] { return device.received().size() >= 19; }));
    ASSERT_TRUE(device.send(QByteArray("\xf0\x0f") + "short"));
    EXPECT_EQ(tool.exitCode(), 1);
    EXPECT_TRUE(contains(tool.error(),
                         "no reply within 5000 ms: 7 bytes came and none was a reply: f0 0f "
                         "73 68 6f 72 74; check the speed: 9600?\n"));
}

TEST(SerialSilence, ListenTellsOfNoiseOnceASecond)
{
    SerialPeer device;
    ToolProcess tool({QStringLiteral("listen"), serialLink(device)});
    ASSERT_TRUE(tool.says(QStringLiteral("listening on")));
    const auto count = [&tool] { return tool.error().count(QStringLiteral(" noise: ")); };
    QElapsedTimer clock;
    clock.start();
    ASSERT_TRUE(eventually([&] { // a device at another speed never stops
        device.offer(QByteArray(50, '\x80'));
        return tool.says(QString()) && count() >= 3;
    }));
    EXPECT_LE(count(), 1 + clock.elapsed() / 1000);
    EXPECT_TRUE(contains(tool.error(),
                         " bytes came that are no reply: 80 80 80 80 80 80 80 80 80 80 80 80 "
                         "80 80 80 80 ...; check the speed: 115200?\n"));
    tool.interrupt();
    EXPECT_EQ(tool.exitCode(), 0);
}

TEST(SerialSilence, ListenTellsOfAFewBytesToo)
{
    SerialPeer device;
    ToolProcess tool({QStringLiteral("listen"), serialLink(device)});
    ASSERT_TRUE(tool.says(QStringLiteral("listening on")));
    ASSERT_TRUE(device.send(replybytes::text(0x10, 0x20)));
    ASSERT_TRUE(tool.says(QStringLiteral("CMD 10 DAT1 20")));
    ASSERT_TRUE(device.send("<F5a"));
    EXPECT_TRUE(tool.says(
        QStringLiteral(" noise: 4 bytes came that are no reply: 3c 46 35 61; check the speed")));
    tool.interrupt();
    EXPECT_EQ(tool.exitCode(), 0);
    EXPECT_TRUE(contains(tool.error(), "1 replies in "));
}

TEST(SerialSilence, AnotherProgramReadsThePort)
{
    const SerialPeer device;
    const Holder other(QStringLiteral("othertool"), device.portName());
    EXPECT_TRUE(
        contains(silenceOf(serialLink(device)),
                 QStringLiteral("%1 has %2 open as well and may take its bytes: end that first\n")
                     .arg(other.name(), device.portName())));
    EXPECT_TRUE(contains(findings(serialLink(device), 1),
                         QStringLiteral("WRONG %1 has %2\n      end it: kill ")
                             .arg(other.name(), device.portName())));
}

TEST(SerialSilence, AContainersTerminalOfTheSameNameIsAnotherOne)
{
    const SerialPeer device;
    QProcess container;
    container.start(QStringLiteral("unshare"),
                    {QStringLiteral("-m"), QStringLiteral("sh"), QStringLiteral("-c"),
                     QStringLiteral("mount -t devpts -o ptmxmode=666 devpts /dev/pts && exec "
                                    "script -qc 'tty; exec sleep 60' /dev/null")});
    QByteArray said;
    while (!said.contains('\n') && container.waitForReadyRead(30000)) {
        said += container.readAllStandardOutput();
    }
    const bool isAlike = QString::fromLatin1(said).trimmed() == device.portName();
    const QString found = isAlike ? findings(serialLink(device), 0) : QString();
    container.terminate();
    container.waitForFinished();
    if (!isAlike) {
        GTEST_SKIP() << "the right to make a container is missing: " << said.toStdString();
    }
    EXPECT_FALSE(contains(found, QStringLiteral(" has ") + device.portName()));
}

TEST(SerialSilence, ModemManagerHasThePort)
{
    const SerialPeer device;
    const Holder other(QStringLiteral("ModemManager"), device.portName());
    EXPECT_TRUE(
        contains(findings(serialLink(device), 1),
                 QStringLiteral("WRONG %1 has %2 and probes it for a modem\n      sudo systemctl "
                                "stop ModemManager\n")
                     .arg(other.name(), device.portName())));
}

TEST(SerialSilence, ASimulatedDeviceIsNoOtherProgram)
{
    ToolProcess device(words(QStringLiteral("simulate serial:// --fault drop=1")));
    ASSERT_TRUE(device.says(QStringLiteral("\n")));
    const QString link = device.lines().value(0).section(QLatin1Char(' '), -1);
    EXPECT_TRUE(contains(silenceOf(link), "no reply within 200 ms: nothing came\n"));
}

TEST(SerialSilence, TheLineWasHungUp)
{
    const SerialPeer device;
    ToolProcess tool({QStringLiteral("listen"), serialLink(device)});
    ASSERT_TRUE(tool.says(QStringLiteral("listening on")));
    const int line = open(device.portName().toLocal8Bit().constData(), O_RDWR | O_NOCTTY);
    if (line < 0 || ioctl(line, TIOCVHANGUP) != 0) {
        GTEST_SKIP() << "needs the right to hang up a line (root)";
    }
    close(line);
    EXPECT_EQ(tool.exitCode(), 1);
    EXPECT_TRUE(contains(tool.error(), ": the line was hung up\n"));
}

TEST(SerialSilence, ThereIsNoSuchPortOrNoRight)
{
    EXPECT_TRUE(
        contains(findings(QStringLiteral("serial:///dev/ttyNone"), 1),
                 "WRONG there is no /dev/ttyNone\n      plug it in; coremanage ports lists"));
    const SerialPeer device;
    const QByteArray path = device.portName().toLocal8Bit();
    constexpr gid_t someGroup = 65534;
    const bool mayChoose = chown(path.constData(), geteuid(), someGroup) == 0;
    ASSERT_EQ(chmod(path.constData(), 0060), 0);
    const QString text = findings(serialLink(device), 1, toolWithoutPrivilege());
    EXPECT_TRUE(contains(text, "Permission denied (0060, owner "));
    if (mayChoose) {
        EXPECT_TRUE(contains(text, "\n      join its group: sudo usermod -aG "));
    }
    ASSERT_EQ(chmod(path.constData(), 0000), 0);
    EXPECT_TRUE(contains(findings(serialLink(device), 1, toolWithoutPrivilege()),
                         "\n      sudo chmod o+rw "));
}

/// A serial port on USB with ids, as umockdev shows it to the tool.
class UsbSerialSilence : public ::testing::Test
{
protected:
    void SetUp() override
    {
        QFile file(directory.filePath(QStringLiteral("devices")));
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write("P: /devices/usb1/1-1\n"
                   "E: DEVTYPE=usb_device\n"
                   "E: SUBSYSTEM=usb\n"
                   "A: idVendor=0403\\n\n"
                   "A: idProduct=6001\\n\n\n"
                   "P: /devices/usb1/1-1/1-1:1.0/ttyUSB0/tty/ttyUSB0\n"
                   "N: ttyUSB0\n"
                   "E: DEVNAME=/dev/ttyUSB0\n"
                   "E: ID_VENDOR_ID=0403\n"
                   "E: ID_MODEL_ID=6001\n"
                   "E: MAJOR=188\n"
                   "E: MINOR=0\n"
                   "E: SUBSYSTEM=tty\n"
                   "A: dev=188:0\\n\n");
        if (sanitized) {
            GTEST_SKIP() << "umockdev-run cannot load itself before a sanitizer";
        }
    }

    /// What doctor finds once a shell has done something.
    QString found(const QString& before, int code) const
    {
        const QStringList emulated{QStringLiteral("umockdev-run"), QStringLiteral("-d"),
                                   directory.filePath(QStringLiteral("devices")),
                                   QStringLiteral("--")};
        const QStringList shell{QStringLiteral("sh"), QStringLiteral("-c"),
                                before + QStringLiteral("; exec \"$@\""), QStringLiteral("sh")};
        return findings(QStringLiteral("serial:///dev/ttyUSB0"), code,
                        emulated + shell + toolWithoutPrivilege());
    }

    const QTemporaryDir directory;
};

TEST_F(UsbSerialSilence, NobodyMayOpenIt)
{
    EXPECT_TRUE(contains(found(QStringLiteral("chmod 0 $UMOCKDEV_DIR/dev/ttyUSB0"), 1),
                         "      SUBSYSTEM==\"tty\", ATTRS{idVendor}==\"0403\", "
                         "ATTRS{idProduct}==\"6001\", TAG+=\"uaccess\"\n"));
}

TEST_F(UsbSerialSilence, ModemManagerRuns)
{
    EXPECT_TRUE(contains(found(QStringLiteral(":"), 0), "fine  ModemManager does not probe it\n"));
    const Holder manager(QStringLiteral("ModemManager"), QStringLiteral("/dev/null"));
    const QString text = found(QStringLiteral(":"), 0);
    EXPECT_TRUE(contains(text, QStringLiteral("note  %1 probes it for a modem when it is plugged "
                                              "in\n      sudo systemctl stop ModemManager, or")
                                   .arg(manager.name())));
    EXPECT_TRUE(contains(text, "ATTRS{idProduct}==\"6001\", ENV{ID_MM_PORT_IGNORE}=\"1\"\n"));
}

/// coremanage listen --stats to a device that the test plays.
class Stats : public ::testing::Test
{
protected:
    /// The sum of a number over all rows of a link so far.
    static double sum(ToolProcess& tool, const QString& link, const char* field)
    {
        tool.says(QString());
        double total = 0;
        for (const QString& line : tool.lines()) {
            const QJsonObject row = QJsonDocument::fromJson(line.toUtf8()).object();
            if (row.value(QStringLiteral("link")).toString() == link) {
                total += row.value(QLatin1String(field)).toDouble();
            }
        }
        return total;
    }
};

TEST_F(Stats, CountsWhatPassesOverASerialLine)
{
    SerialPeer device;
    const QString link = serialLink(device);
    ToolProcess tool(
        {QStringLiteral("listen"), link, QStringLiteral("--stats"), QStringLiteral("--json")});
    ASSERT_TRUE(tool.says(QStringLiteral("listening on")));
    QByteArray bytes;
    for (int i = 0; i < 30; ++i) {
        bytes += replybytes::text(0x10, i);
    }
    ASSERT_TRUE(device.send(bytes + "<F5a0110020000006e>"));
    ASSERT_TRUE(device.send(replybytes::text(0x8b, 0x05) + QByteArray(145, 'x')));
    ASSERT_TRUE(device.send(QByteArray(40, '\x80')));
    ASSERT_TRUE(device.send(replybytes::text(0x10, 0x20)));
    ASSERT_TRUE(eventually([&] { // they are counted before they are in the queue
        return sum(tool, link, "replies") >= 31 && sum(tool, link, "queue_depth") >= 1;
    }));
    EXPECT_EQ(sum(tool, link, "replies"), 31);
    EXPECT_EQ(sum(tool, link, "checksum_errors"), 2);
    EXPECT_GE(sum(tool, link, "skipped_bytes"), 40);
    ASSERT_TRUE(device.send(replybytes::text(0x8b, 0x05) + QByteArray(14, 'x')));
    ASSERT_TRUE(eventually([&] { return sum(tool, link, "late_blocks") >= 1; }));
    EXPECT_EQ(sum(tool, link, "late_blocks"), 1);
    tool.interrupt();
    EXPECT_EQ(tool.exitCode(), 0);
    const QJsonObject total = QJsonDocument::fromJson(tool.lines().last().toUtf8()).object();
    EXPECT_EQ(total.value(QStringLiteral("replies")).toInt(), 31);
    EXPECT_EQ(total.value(QStringLiteral("checksum_errors")).toInt(), 2);
    EXPECT_EQ(total.value(QStringLiteral("late_blocks")).toInt(), 1);
    EXPECT_FALSE(tool.output().contains("\"cmd\"")) << "rows instead of replies";
}

TEST_F(Stats, HasARowForEachEndpoint)
{
    OsdPeer first("127.0.0.1");
    OsdPeer second("127.0.0.2");
    ToolProcess tool({QStringLiteral("listen"), first.link(), second.link(),
                      QStringLiteral("--stats"), QStringLiteral("--json")});
    ASSERT_TRUE(eventually([&] { return first.isConnected() && second.isConnected(); }));
    second.answer("OK1..OK2");
    ASSERT_TRUE(eventually([&] { return sum(tool, second.link(), "replies") >= 2; }));
    EXPECT_EQ(sum(tool, second.link(), "skipped_bytes"), 2);
    EXPECT_EQ(sum(tool, first.link(), "replies"), 0);
    EXPECT_TRUE(tool.output().contains(first.link().toLatin1()));
    tool.interrupt();
    EXPECT_EQ(tool.exitCode(), 0);
}

TEST_F(Stats, ShowsRatesOfUdpAsText)
{
    ToolProcess tool(words(QStringLiteral("listen udp://127.0.0.1 --stats --count 3")));
    ASSERT_TRUE(tool.says(QStringLiteral("listening on")));
    UdpPeer device;
    device.send(replyText(1, 0));
    ASSERT_TRUE(tool.says(QStringLiteral(" (1 in ")));
    device.send(replyText(1, 0));
    device.send(replyText(1, 0));
    EXPECT_EQ(tool.exitCode(), 0) << tool.error().toStdString();
    const QString total = tool.lines().last();
    EXPECT_TRUE(contains(total, "in all udp://127.0.0.1: "));
    EXPECT_TRUE(contains(total, " (3 in "));
    EXPECT_TRUE(contains(total, " s), 0 skipped bytes, 0 checksum errors, 0 late blocks, queue "));
}

TEST(Doctor, PrintsJsonAndRefusesWrongLinks)
{
    const ToolRun run(words(QStringLiteral("doctor serial:///dev/ttyNone --json")));
    EXPECT_EQ(run.code, 1);
    EXPECT_EQ(run.json.value(QStringLiteral("state")).toString(), QStringLiteral("wrong"));
    EXPECT_FALSE(run.json.value(QStringLiteral("mend")).toString().isEmpty());
    EXPECT_EQ(ToolRun(words(QStringLiteral("doctor tcp://1"))).code, 2);
}
