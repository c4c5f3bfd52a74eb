// SPDX-License-Identifier: MIT
#include "netns.h"
#include "tests/transports/udppeer.h"
#include "toolprocess.h"

#include <gtest/gtest.h>

#include <QTemporaryDir>

namespace
{

struct Case {
    const char* arguments; // separated by blanks; %1 is the address of a peer that listens
    const char* says;
};

void PrintTo(const Case& wrong, std::ostream* out)
{
    *out << wrong.arguments;
}

class BadInput : public ::testing::TestWithParam<Case>
{
};

TEST_P(BadInput, IsRefusedInOneLineAndNothingIsSent)
{
    UdpPeer peer;
    const qint64 before = datagramsSent();
    const QString address = QStringLiteral("udp://127.0.0.1:%1").arg(peer.port());
    const QStringList arguments = QString::fromLatin1(GetParam().arguments)
                                      .replace(QLatin1String("%1"), address)
                                      .split(QLatin1Char(' '), Qt::SkipEmptyParts);
    const ToolRun run(arguments);
    EXPECT_EQ(run.code, 2) << run.error.toStdString();
    EXPECT_EQ(run.error.count(QLatin1Char('\n')), 1) << run.error.toStdString();
    EXPECT_TRUE(run.error.startsWith(QLatin1String("coremanage: ")));
    EXPECT_TRUE(run.error.contains(QLatin1String(GetParam().says))) << run.error.toStdString();
    EXPECT_TRUE(run.output.isEmpty()) << run.output.constData();
    EXPECT_FALSE(peer.hasDatagram());
    if (netns::isolated()) {
        EXPECT_EQ(datagramsSent(), before);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Tool, BadInput,
    ::testing::Values(
        Case{"", "subcommand: invalid value \"\" (expected demo, send, listen, capture, replay, "
                 "simulate, bridge, doctor, ports, "
                 "devices, encode, decode)"},
        Case{"frob", "subcommand: invalid value \"frob\" (expected demo, send, listen, capture, "
                     "replay, simulate, bridge, doctor, "
                     "ports, devices, encode, decode)"},
        Case{"--frob",
             "subcommand: invalid value \"--frob\" (expected demo, send, listen, capture, replay, "
             "simulate, bridge, doctor, ports, devices, encode, decode)"},
        Case{"sned %1 --cmd 1", "there is no subcommand \"sned\" (did you mean send?): see "
                                "coremanage --help"},
        Case{"send %1 --cmd 1 --raw 00", "--raw: it has all that is sent: leave the fields out"},
        Case{"send %1 --cmd 1 --file @", "--file: it has all that is sent: leave the fields out"},
        Case{"send %1 --raw 00 --file x", "--raw excludes --file"},
        Case{"send %1 --cmd 1 --every 5 --rate 5", "--every excludes --rate"},
        Case{"send %1 --raw 0", "--raw: invalid value \"0\" (expected hexadecimal digits"},
        Case{"send %1 --file /no/such/file", "No such file or directory"},
        Case{"send %1 --cmd 1 --every -1", "--every: invalid value \"-1\" (expected 0 to 3600000)"},
        Case{"send", "link is required: see coremanage send --help"},
        Case{"send 192.168.1.20 --cmd 1", "link: invalid value \"192.168.1.20\" (expected an "
                                          "address like udp://192.168.1.20:1000)"},
        Case{"send ://x --cmd 1",
             "link: invalid value \"://x\" (expected an address like udp://192.168.1.20:1000)"},
        Case{"send tcp://127.0.0.1:5 --cmd 1",
             "link: invalid value \"tcp://127.0.0.1:5\" (expected udp://192.168.1.20:1000 or "
             "serial:///dev/ttyUSB0?baud=115200 or vela:///dev/ttyS1 or usb://04b4:1008 or "
             "osd://10.0.0.5:10001)"},
        Case{"send udp:// --cmd 1", "host of udp://: invalid value \"\" (expected an IPv4 address "
                                    "like 192.168.1.20; names are not looked up)"},
        Case{"send udp://127.0.0 --cmd 1",
             "host of udp://127.0.0: invalid value \"127.0.0\" (expected an IPv4 address like "
             "192.168.1.20; names are not looked up)"},
        Case{"send udp://127.0.0.256 --cmd 1",
             "host of udp://127.0.0.256: invalid value \"127.0.0.256\" (expected an IPv4 address "
             "like 192.168.1.20; names are not looked up)"},
        Case{"send udp://127.0.0.01 --cmd 1",
             "host of udp://127.0.0.01: invalid value \"127.0.0.01\" (expected an IPv4 address "
             "like 192.168.1.20; names are not looked up)"},
        Case{"send udp://localhost --cmd 1", "names are not looked up"},
        Case{"send udp://[::1]:5 --cmd 1",
             "host of udp://[::1]:5: invalid value \"[\" (expected an IPv4 address like "
             "192.168.1.20; names are not looked up)"},
        Case{"send udp://127.0.0.1: --cmd 1",
             "port of udp://127.0.0.1:: invalid value \"\" (expected 0 to 65535)"},
        Case{"send udp://127.0.0.1:0 --cmd 1",
             "port of udp://127.0.0.1:0: invalid value \"0\" (expected 1 to 65535)"},
        Case{"send udp://127.0.0.1:65536 --cmd 1",
             "port of udp://127.0.0.1:65536: invalid value \"65536\" (expected 0 to 65535)"},
        Case{"send udp://127.0.0.1:-1 --cmd 1",
             "port of udp://127.0.0.1:-1: invalid value \"-1\" (expected 0 to 65535)"},
        Case{"send udp://127.0.0.1:+5 --cmd 1",
             "port of udp://127.0.0.1:+5: invalid value \"+5\" (expected 0 to 65535)"},
        Case{"send udp://127.0.0.1:5:6 --cmd 1",
             "port of udp://127.0.0.1:5:6: invalid value \"5:6\" (expected 0 to 65535)"},
        Case{
            "send udp://0.0.0.0 --cmd 1",
            "host of udp://0.0.0.0: invalid value \"0.0.0.0\" (expected the device's own address)"},
        Case{"send %1?baud=5 --cmd 1", "invalid value \"baud\" (expected none)"},
        Case{"send %1?baud --cmd 1", "invalid value \"baud\" (expected each once, as key=value)"},
        Case{"send %1", "--cmd is missing: give the command code, like --cmd 0x8b"},
        Case{"send %1 --cmd", ": --cmd has no value: give one behind it: see coremanage send"},
        Case{"simulate udp://127.0.0.1:0 --fault", ": --fault has no value: give one behind it"},
        Case{"send %1 --cmd 256", "--cmd: invalid value \"256\" (expected 0 to 255)"},
        Case{"send %1 --cmd -1", "--cmd: invalid value \"-1\" (expected 0 to 255)"},
        Case{"send %1 --cmd 0x", "--cmd: invalid value \"0x\" (expected 0 to 255)"},
        Case{"send %1 --cmd 8b", "--cmd: invalid value \"8b\" (expected 0 to 255)"},
        Case{"send %1 --cmd 1.5", "--cmd: invalid value \"1.5\" (expected 0 to 255)"},
        Case{"send %1 --cmd 99999999999999999999",
             "--cmd: invalid value \"99999999999999999999\" (expected 0 to 255)"},
        Case{"send %1 --cmd 1 --dat1 0x100", "--dat1: invalid value \"0x100\" (expected 0 to 255)"},
        Case{"send %1 --cmd 1 --dat4 x", "--dat4: invalid value \"x\" (expected 0 to 255)"},
        Case{"send %1 --cmd 1 --head 300", "--head: invalid value \"300\" (expected 0 to 255)"},
        Case{"send %1 --cmd 1 --cmd 2", ": --cmd comes more than once: give it once"},
        Case{"send %1 --cmd 1 --tries 1 --tries 2", ": --tries comes more than once"},
        Case{"send %1 --cmd 1 --aux1 5", "--aux1: text frames do not carry it"},
        Case{"send %1 --cmd 1 --block 0", "--block: invalid value \"0\" (expected hexadecimal "
                                          "digits in pairs, like 00ff10, or @FILE)"},
        Case{"send %1 --cmd 1 --block 0g", "--block: invalid value \"0g\" (expected hexadecimal "
                                           "digits in pairs, like 00ff10, or @FILE)"},
        Case{"send %1 --cmd 1 --block @/no/such/file",
             "--block: invalid value \"/no/such/file\" (expected a readable file: No such file or "
             "directory)"},
        Case{"send %1 --cmd 1 --block @/tmp", "--block: invalid value \"/tmp\" (expected a "
                                              "readable file: file to open is a directory)"},
        Case{"send %1 --cmd 1 --block @",
             "--block: invalid value \"\" (expected a readable file: no name)"},
        Case{"send %1 --cmd 1 --block @/proc/self/mem",
             "--block: invalid value \"/proc/self/mem\" (expected a readable file: Input/output "
             "error)"},
        Case{"send %1 --cmd 1 --block @/dev/zero",
             "--block: invalid value \"/dev/zero\" (expected 0 to 65535 bytes)"},
        Case{"send osd://127.0.0.1 --data @/proc/self/mem", "Input/output error"},
        Case{"encode --cmd 1 --block @/proc/self/mem", "Input/output error"},
        Case{"decode @/proc/self/mem", "Input/output error"},
        Case{"decode @", "frame: invalid value \"\" (expected a readable file: no name)"},
        Case{"send %1 --cmd 1 --timeout 3600001",
             "--timeout: invalid value \"3600001\" (expected 0 to 3600000)"},
        Case{"send %1 --cmd 1 --timeout soon",
             "--timeout: invalid value \"soon\" (expected 0 to 3600000)"},
        Case{"send %1 --cmd 1 --tries 0", "--tries: invalid value \"0\" (expected 1 to 1000)"},
        Case{"send %1 --cmd 1 --replies 0",
             "--replies: invalid value \"0\" (expected 1 to 1000000)"},
        Case{"send %1 --cmd 1 --replies 5 --timeout 0",
             "--replies: --timeout 0 waits for no reply"},
        Case{"send %1 --cmd 1 --tries 5 --timeout 0", "--tries: --timeout 0 waits for no reply"},
        Case{"send %1 --cmd 1 --device-type x",
             "--device-type: invalid value \"x\" (expected 0 to 2147483647)"},
        Case{"send %1 --cmd 1 --log /",
             "--log: invalid value \"/\" (expected a file that can be written: is no plain file)"},
        Case{"send %1 --cmd 1 --log /proc/no/such.log",
             "--log: invalid value \"/proc/no/such.log\" (expected a file that can be written: No "
             "such file or directory)"},
        Case{"send %1 --cmd 1 --log /dev/null", "is no plain file"},
        Case{"send %1 --cmd 1 --frob", "--frob: see coremanage send --help"},
        Case{"send %1 extra --cmd 1",
             "link: invalid value \"extra\" (expected an address like udp://192.168.1.20:1000)"},
        Case{"send %1 udp://127.0.0.2 --cmd 1", "link: invalid value \"udp://127.0.0.2\" (expected "
                                                "one link; only osd:// takes several at once)"},
        Case{"send %1 osd://127.0.0.2 --cmd 1", "link: invalid value \"osd://127.0.0.2\" (expected "
                                                "one link; only osd:// takes several at once)"},
        Case{"send %1 --cmd 1 --to 127.0.0.1", "--to: only osd:// has several endpoints"},
        Case{"send %1 --cmd 1 --ch2 1", "--ch2: text frames do not carry it"},
        Case{"send osd://127.0.0.1 %1 --ch2 1", "(expected only osd:// links together)"},
        Case{"send osd://127.0.0.1", "give --ch2 to --ch10 (but no ch6), --data or --text"},
        Case{"send osd://127.0.0.1 --cmd 1", "--cmd: on-screen-display frames do not carry it"},
        Case{"send osd://127.0.0.1 --ch6 1", "--ch6"},
        Case{"send osd://127.0.0.1 --ch2 256", "--ch2: invalid value \"256\" (expected 0 to 255)"},
        Case{"send osd://127.0.0.1 --ch10 -1", "--ch10: invalid value \"-1\" (expected 0 to 255)"},
        Case{"send osd://127.0.0.1 --data 0", "--data: invalid value \"0\" (expected hexadecimal "
                                              "digits in pairs, like 00ff10, or @FILE)"},
        Case{"send osd://127.0.0.1 --data @/no/such/file", "No such file or directory"},
        Case{"send osd://127.0.0.1 --data 00 --text x", "--data excludes --text"},
        Case{"send osd://127.0.0.1 --ch2 1 --to 127.0.0.2",
             "--to: invalid value \"127.0.0.2\" (expected 127.0.0.1)"},
        Case{"send osd://127.0.0.1 --ch2 1 --broadcast", "give every endpoint's link"},
        Case{"send osd://127.0.0.1 osd://127.0.0.1:5 --ch2 1",
             "host of osd://127.0.0.1:5: invalid value \"127.0.0.1\" (expected each address once, "
             "whatever its port)"},
        Case{"send osd://127.0.0.1 osd://127.0.0.2:0 --ch2 1", "a port from 1 to 65535"},
        Case{"send osd://127.0.0.1 osd://0.0.0.0 --ch2 1",
             "link: invalid value \"osd://0.0.0.0:10001\" (expected the endpoint's own address and "
             "a port from 1 to 65535)"},
        Case{"send osd://127.0.0.1:65536 --ch2 1",
             "port of osd://127.0.0.1:65536: invalid value \"65536\" (expected 0 to 65535)"},
        Case{"send osd://here --ch2 1", "host of osd://here: invalid value \"here\" (expected an "
                                        "IPv4 address like 192.168.1.20; names are not looked up)"},
        Case{"send osd://127.0.0.1?data=5 --ch2 1", "?data is for simulate"},
        Case{"listen osd://127.0.0.1 osd://127.0.0.2?frob=5",
             "options of osd://127.0.0.2?frob=5: invalid value \"frob\" (expected data)"},
        Case{"listen", "link is required"},
        Case{"listen udp://127.0.0.1:x",
             "port of udp://127.0.0.1:x: invalid value \"x\" (expected 0 to 65535)"},
        Case{"listen %1 --count 0", "--count: invalid value \"0\" (expected 1 to 1000000000)"},
        Case{"listen %1 --for 0", "--for: invalid value \"0\" (expected 1 to 31622400)"},
        Case{"simulate udp://127.0.0.1:0 --fault lose=1", "(expected drop, duplicate, "},
        Case{"simulate udp://127.0.0.1:0 --fault drop=200%", "(expected drop=10%"},
        Case{"simulate udp://127.0.0.1:0 --seed -1",
             "--seed: invalid value \"-1\" (expected 0 to 9223372036854775807)"},
        Case{"simulate udp://127.0.0.1:0 --announced 40000",
             "--announced: invalid value \"40000\" (expected 1 to 32767)"},
        Case{"simulate udp://127.0.0.1:0 --fault refuse", "has no refuse: leave it out"},
        Case{"simulate udp://127.0.0.1:0 --fault split=1", "has no split: leave it out"},
        Case{"simulate udp://127.0.0.1:0 --fault glue=1 --fault hang-up=1 --fault noise=1 --fault "
             "late-block=1 --fault block-checksum=1 --fault drop=1",
             "has no block-checksum, noise, late-block, glue, hang-up: leave it out"},
        Case{"simulate osd://127.0.0.1:0 --fault truncate=1", "has no truncate: leave it out"},
        Case{"simulate osd://127.0.0.1:0 --fault refuse=3", "(expected refuse)"},
        Case{"simulate osd://127.0.0.1:0?data=-1",
             "data of osd://127.0.0.1:0?data=-1: invalid value \"-1\" (expected 0 to 16777216)"},
        Case{"simulate osd://127.0.0.1:0 osd://127.0.0.2:0", "osd://127.0.0.2:0"},
        Case{"simulate udp://nowhere:0",
             "host of udp://nowhere:0: invalid value \"nowhere\" (expected an IPv4 address like "
             "192.168.1.20; names are not looked up)"},
        Case{"encode", "--cmd is missing"},
        Case{"encode --cmd 1 --raw --json", "--raw excludes --json"},
        Case{"encode --cmd 1 --binary --head 1", "--head: binary frames do not carry it"},
        Case{"encode --cmd 1 --aux3 1", "--aux3: text frames do not carry it"},
        Case{"encode --cmd 1 --binary --aux4 65536",
             "--aux4: invalid value \"65536\" (expected 0 to 65535)"},
        Case{"encode --osd", "there is no command: give --ch2"},
        Case{"encode --osd --binary --ch2 1", "--binary excludes --osd"},
        Case{"encode --osd --cmd 1", "on-screen-display frames do not carry it"},
        Case{"encode --ch2 1 --cmd 1", "--ch2: text frames do not carry it"},
        Case{"decode", "frame is required"},
        Case{"decode xyz", "frame: invalid value \"xyz\" (expected hexadecimal digits in pairs, "
                           "like 00ff10, or @FILE)"},
        Case{"decode @/no/such/file", "No such file or directory"},
        Case{"demo --log /",
             "--log: invalid value \"/\" (expected a file that can be written: is no plain file)"},
        Case{"demo extra", "link: invalid value \"extra\" (expected an address"},
        Case{"demo udp more", "more: see coremanage demo --help"}));

TEST(BadInput, RefusesABlockThatIsTooLong)
{
    QTemporaryDir directory;
    const auto fileOf = [&directory](int size) {
        QFile file(directory.filePath(QString::number(size)));
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(QByteArray(size, 'x'));
        return QStringLiteral("@") + file.fileName();
    };
    UdpPeer peer;
    const QString address = QStringLiteral("udp://127.0.0.1:%1").arg(peer.port());
    const auto send = [&](int size, const QStringList& more) {
        return ToolRun(QStringList{QStringLiteral("send"), address, QStringLiteral("--cmd"),
                                   QStringLiteral("1"), QStringLiteral("--block"), fileOf(size)} +
                       more);
    };
    const ToolRun tooLong = send(65536, {});
    EXPECT_EQ(tooLong.code, 2);
    EXPECT_TRUE(tooLong.error.contains(QStringLiteral("(expected 0 to 65535 bytes)")));
    const ToolRun huge = send(17 * 1024 * 1024, {});
    EXPECT_EQ(huge.code, 2);
    EXPECT_TRUE(huge.error.contains(QStringLiteral("(expected 0 to 65535 bytes)")));
    const ToolRun broadcast = send(65489, {QStringLiteral("--broadcast")});
    EXPECT_EQ(broadcast.code, 2);
    EXPECT_TRUE(
        broadcast.error.contains(QStringLiteral("(expected 0 to 65488 bytes in one broadcast)")));
    EXPECT_FALSE(peer.hasDatagram());
}

TEST(BadInput, TakesNoBlankForADigit)
{
    const struct {
        QStringList arguments;
        const char* says;
    } cases[] = {
        {{QStringLiteral("send"), QStringLiteral("udp://127.0.0.1: 5")},
         "invalid value \" 5\" (expected 0 to 65535)"},
        {{QStringLiteral("send"), QStringLiteral("udp://127.0.0.1\n")},
         "(expected an IPv4 address"},
        {{QStringLiteral("listen"), QStringLiteral("usb://04b4:1008\n")},
         "(expected two of four hexadecimal digits"},
        {{QStringLiteral("encode"), QStringLiteral("--cmd"), QStringLiteral("1\n")},
         "(expected 0 to 255)"},
        {{QStringLiteral("encode"), QStringLiteral("--cmd"), QStringLiteral(" 1")},
         "(expected 0 to 255)"},
    };
    for (const auto& wrong : cases) {
        const ToolRun run(wrong.arguments);
        EXPECT_EQ(run.code, 2) << wrong.says;
        EXPECT_TRUE(run.error.contains(QLatin1String(wrong.says))) << run.error.toStdString();
    }
}

TEST(BadInput, NamesEveryLinkThatThereIs)
{
    const ToolRun help({QStringLiteral("send"), QStringLiteral("--help")});
    EXPECT_EQ(help.code, 0);
    const ToolRun run({QStringLiteral("send"), QStringLiteral("no://x"), QStringLiteral("--cmd"),
                       QStringLiteral("1")});
    EXPECT_EQ(run.code, 2);
    for (const char* scheme : {"udp://", "serial://", "vela://", "usb://", "osd://"}) {
        EXPECT_TRUE(help.output.contains(scheme)) << scheme;
        EXPECT_TRUE(run.error.contains(QLatin1String(scheme))) << scheme;
    }
}

} // namespace
