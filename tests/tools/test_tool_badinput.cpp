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
        Case{"", "give one of demo, send, listen, simulate, ports, devices, encode, decode"},
        Case{"frob", "\"frob\" is no subcommand: give one of demo, send, listen, simulate, ports"},
        Case{"--frob", "\"--frob\" is no subcommand: give one of demo, send"},
        Case{"sned %1 --cmd 1", "\"sned\" is no subcommand: give one of demo, send"},
        Case{"send", "link is required: see coremanage send --help"},
        Case{"send 192.168.1.20 --cmd 1", "a link is written like udp://192.168.1.20:1000"},
        Case{"send ://x --cmd 1", "a link is written like udp://192.168.1.20:1000"},
        Case{"send tcp://127.0.0.1:5 --cmd 1", "there is no link \"tcp\""},
        Case{"send udp:// --cmd 1", "\"\" is no IPv4 address: write udp://192.168.1.20:1000"},
        Case{"send udp://127.0.0 --cmd 1", "\"127.0.0\" is no IPv4 address"},
        Case{"send udp://127.0.0.256 --cmd 1", "is no IPv4 address"},
        Case{"send udp://127.0.0.01 --cmd 1", "is no IPv4 address"},
        Case{"send udp://localhost --cmd 1", "names are not looked up"},
        Case{"send udp://[::1]:5 --cmd 1", "is no IPv4 address"},
        Case{"send udp://127.0.0.1: --cmd 1", "give a number from 1 to 65535"},
        Case{"send udp://127.0.0.1:0 --cmd 1", "a number from 1 to 65535"},
        Case{"send udp://127.0.0.1:65536 --cmd 1", "give a number from 1 to 65535"},
        Case{"send udp://127.0.0.1:-1 --cmd 1", "give a number from 1 to 65535"},
        Case{"send udp://127.0.0.1:+5 --cmd 1", "\"+5\" is no port: give a number from 1 to 65535"},
        Case{"send udp://127.0.0.1:5:6 --cmd 1", "\"5:6\" is no port"},
        Case{"send udp://0.0.0.0 --cmd 1", "give the device's own address"},
        Case{"send %1?baud=5 --cmd 1", "unknown option \"baud\": udp:// takes no options"},
        Case{"send %1?baud --cmd 1", "write each once, as key=value"},
        Case{"send %1", "--cmd is missing: give the command code, like --cmd 0x8b"},
        Case{"send %1 --cmd", ": --cmd has no value: give one behind it: see coremanage send"},
        Case{"simulate udp://127.0.0.1:0 --fault", ": --fault has no value: give one behind it"},
        Case{"send %1 --cmd 256", "--cmd: \"256\" will not do: give a number from 0 to 255 (0xff)"},
        Case{"send %1 --cmd -1", "give a number from 0 to 255"},
        Case{"send %1 --cmd 0x", "give a number from 0 to 255"},
        Case{"send %1 --cmd 8b", "give a number from 0 to 255"},
        Case{"send %1 --cmd 1.5", "give a number from 0 to 255"},
        Case{"send %1 --cmd 99999999999999999999", "give a number from 0 to 255"},
        Case{"send %1 --cmd 1 --dat1 0x100", "--dat1: \"0x100\" will not do"},
        Case{"send %1 --cmd 1 --dat4 x", "--dat4: \"x\" will not do"},
        Case{"send %1 --cmd 1 --head 300", "--head: \"300\" will not do"},
        Case{"send %1 --cmd 1 --cmd 2", ": --cmd comes more than once: give it once"},
        Case{"send %1 --cmd 1 --tries 1 --tries 2", ": --tries comes more than once"},
        Case{"send %1 --cmd 1 --aux1 5", "--aux1: text frames do not carry it"},
        Case{"send %1 --cmd 1 --block 0",
             "give hexadecimal digits in pairs, like 00ff10, or @FILE"},
        Case{"send %1 --cmd 1 --block 0g", "give hexadecimal digits in pairs"},
        Case{"send %1 --cmd 1 --block @/no/such/file", "No such file or directory: give a file"},
        Case{"send %1 --cmd 1 --block @/tmp", "it is a directory: give a file"},
        Case{"send %1 --cmd 1 --block @", "\"\" cannot be read: that is no name: give a file"},
        Case{"send %1 --cmd 1 --block @/proc/self/mem",
             "\"/proc/self/mem\" cannot be read: Input/output error: give a file"},
        Case{"send %1 --cmd 1 --block @/dev/zero", "has more than 65535 bytes: give at most 65535"},
        Case{"send osd://127.0.0.1 --data @/proc/self/mem", "Input/output error"},
        Case{"encode --cmd 1 --block @/proc/self/mem", "Input/output error"},
        Case{"decode @/proc/self/mem", "Input/output error"},
        Case{"decode @", "\"\" cannot be read: that is no name: give a file"},
        Case{"send %1 --cmd 1 --timeout 3600001", "--timeout: \"3600001\" will not do"},
        Case{"send %1 --cmd 1 --timeout soon", "give a number from 0 to 3600000"},
        Case{"send %1 --cmd 1 --tries 0", "give a number from 1 to 1000"},
        Case{"send %1 --cmd 1 --replies 0", "give a number from 1 to 1000000"},
        Case{"send %1 --cmd 1 --replies 5 --timeout 0",
             "--replies: --timeout 0 waits for no reply"},
        Case{"send %1 --cmd 1 --tries 5 --timeout 0", "--tries: --timeout 0 waits for no reply"},
        Case{"send %1 --cmd 1 --device-type x", "--device-type: \"x\" will not do"},
        Case{"send %1 --cmd 1 --log /", "is a directory: give a file that can be written"},
        Case{"send %1 --cmd 1 --log /proc/no/such.log", "give a file that can be written"},
        Case{"send %1 --cmd 1 --log /dev/null", "is no plain file"},
        Case{"send %1 --cmd 1 --frob", "--frob: see coremanage send --help"},
        Case{"send %1 extra --cmd 1", "\"extra\": a link is written like udp://"},
        Case{"send %1 udp://127.0.0.2 --cmd 1", "only osd:// takes several links at once"},
        Case{"send %1 osd://127.0.0.2 --cmd 1", "only osd:// takes several links at once"},
        Case{"send %1 --cmd 1 --to 127.0.0.1", "--to: only osd:// has several endpoints"},
        Case{"send %1 --cmd 1 --ch2 1", "--ch2: text frames do not carry it"},
        Case{"send osd://127.0.0.1 %1 --ch2 1", "only osd:// links go together"},
        Case{"send osd://127.0.0.1", "give --ch2 to --ch10 (but no ch6), --data or --text"},
        Case{"send osd://127.0.0.1 --cmd 1", "--cmd: on-screen-display frames do not carry it"},
        Case{"send osd://127.0.0.1 --ch6 1", "--ch6"},
        Case{"send osd://127.0.0.1 --ch2 256", "--ch2: \"256\" will not do"},
        Case{"send osd://127.0.0.1 --ch10 -1", "--ch10: \"-1\" will not do"},
        Case{"send osd://127.0.0.1 --data 0", "--data: \"0\" will not do: give hexadecimal digits"},
        Case{"send osd://127.0.0.1 --data @/no/such/file", "No such file or directory"},
        Case{"send osd://127.0.0.1 --data 00 --text x", "--text: there is --data already"},
        Case{"send osd://127.0.0.1 --ch2 1 --to 127.0.0.2", "is none of the endpoints"},
        Case{"send osd://127.0.0.1 --ch2 1 --broadcast", "give every endpoint's link"},
        Case{"send osd://127.0.0.1 osd://127.0.0.1:5 --ch2 1", "127.0.0.1 comes twice"},
        Case{"send osd://127.0.0.1 osd://127.0.0.2:0 --ch2 1", "a port from 1 to 65535"},
        Case{"send osd://127.0.0.1 osd://0.0.0.0 --ch2 1",
             "\"osd://0.0.0.0:10001\" is no endpoint"},
        Case{"send osd://127.0.0.1:65536 --ch2 1", "\"65536\" is no port"},
        Case{"send osd://here --ch2 1", "is no IPv4 address: write osd://192.168.1.20:10001"},
        Case{"send osd://127.0.0.1?data=5 --ch2 1", "?data is for simulate"},
        Case{"listen osd://127.0.0.1 osd://127.0.0.2?frob=5", "osd:// takes data"},
        Case{"listen", "link is required"}, Case{"listen udp://127.0.0.1:x", "\"x\" is no port"},
        Case{"listen %1 --count 0", "--count: \"0\" will not do"},
        Case{"listen %1 --for 0", "--for: \"0\" will not do"},
        Case{"simulate udp://127.0.0.1:0 --fault lose=1", "(expected drop, duplicate, "},
        Case{"simulate udp://127.0.0.1:0 --fault drop=200%", "(expected drop=10%"},
        Case{"simulate udp://127.0.0.1:0 --seed -1", "--seed: \"-1\" will not do"},
        Case{"simulate udp://127.0.0.1:0 --announced 40000", "give a number from 1 to 32767"},
        Case{"simulate udp://127.0.0.1:0 --fault refuse", "has no refuse: leave it out"},
        Case{"simulate udp://127.0.0.1:0 --fault split=1", "has no split: leave it out"},
        Case{"simulate udp://127.0.0.1:0 --fault glue=1 --fault hang-up=1 --fault noise=1 "
             "--fault late-block=1 --fault block-checksum=1 --fault drop=1",
             "has no block-checksum, noise, late-block, glue, hang-up: leave it out"},
        Case{"simulate osd://127.0.0.1:0 --fault truncate=1", "has no truncate: leave it out"},
        Case{"simulate osd://127.0.0.1:0 --fault refuse=3", "(expected refuse)"},
        Case{"simulate osd://127.0.0.1:0?data=-1", "data: \"-1\" will not do"},
        Case{"simulate osd://127.0.0.1:0 osd://127.0.0.2:0", "osd://127.0.0.2:0"},
        Case{"simulate udp://nowhere:0", "is no IPv4 address"}, Case{"encode", "--cmd is missing"},
        Case{"encode --cmd 1 --raw --json", "--raw excludes --json"},
        Case{"encode --cmd 1 --binary --head 1", "--head: binary frames do not carry it"},
        Case{"encode --cmd 1 --aux3 1", "--aux3: text frames do not carry it"},
        Case{"encode --cmd 1 --binary --aux4 65536", "give a number from 0 to 65535 (0xffff)"},
        Case{"encode --osd", "there is no command: give --ch2"},
        Case{"encode --osd --binary --ch2 1", "--binary excludes --osd"},
        Case{"encode --osd --cmd 1", "on-screen-display frames do not carry it"},
        Case{"encode --ch2 1 --cmd 1", "--ch2: text frames do not carry it"},
        Case{"decode", "frame is required"}, Case{"decode xyz", "give hexadecimal digits in pairs"},
        Case{"decode @/no/such/file", "No such file or directory"},
        Case{"demo --log /", "give a file that can be written"},
        Case{"demo extra", "extra: see coremanage demo --help"}));

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
    EXPECT_TRUE(tooLong.error.contains(QStringLiteral("give at most 65535")));
    const ToolRun huge = send(17 * 1024 * 1024, {});
    EXPECT_EQ(huge.code, 2);
    EXPECT_TRUE(huge.error.contains(QStringLiteral("give at most 65535")));
    const ToolRun broadcast = send(65489, {QStringLiteral("--broadcast")});
    EXPECT_EQ(broadcast.code, 2);
    EXPECT_TRUE(broadcast.error.contains(QStringLiteral("give at most 65488")));
    EXPECT_FALSE(peer.hasDatagram());
}

TEST(BadInput, TakesNoBlankForADigit)
{
    const struct {
        QStringList arguments;
        const char* says;
    } cases[] = {
        {{QStringLiteral("send"), QStringLiteral("udp://127.0.0.1: 5")}, "\" 5\" is no port"},
        {{QStringLiteral("send"), QStringLiteral("udp://127.0.0.1\n")}, "is no IPv4 address"},
        {{QStringLiteral("listen"), QStringLiteral("usb://04b4:1008\n")}, "is no pair of ids"},
        {{QStringLiteral("encode"), QStringLiteral("--cmd"), QStringLiteral("1\n")},
         "give a number from 0 to 255"},
        {{QStringLiteral("encode"), QStringLiteral("--cmd"), QStringLiteral(" 1")},
         "give a number from 0 to 255"},
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
