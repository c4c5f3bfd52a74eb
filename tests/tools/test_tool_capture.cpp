// SPDX-License-Identifier: MIT
#include "capturedpackets.h"
#include "capturewriter.h"
#include "tests/transports/udppeer.h"
#include "toolprocess.h"

#include <gtest/gtest.h>

#include <QFileInfo>
#include <QJsonDocument>
#include <QStandardPaths>

#include <map>

#include <unistd.h>

namespace
{

using What = CaptureRecord::What;

/// What went in each direction, datagrams and pieces joined.
std::map<What, QByteArray> bytesIn(const QString& path)
{
    std::map<What, QByteArray> bytes;
    for (const CaptureRecord& packet : capturedPackets(path)) {
        bytes[packet.what] += packet.bytes;
    }
    return bytes;
}

class CaptureTool : public ::testing::Test
{
protected:
    QString file(const char* name) const { return directory.filePath(QLatin1String(name)); }

    /// Starts a simulated device, and returns where it is.
    QString simulate(const QString& arguments)
    {
        device = std::make_unique<ToolProcess>(
            words(QStringLiteral("simulate %1 --json").arg(arguments)));
        EXPECT_TRUE(device->says(QStringLiteral("\n"))) << device->error().toStdString();
        EXPECT_TRUE(!arguments.startsWith(QStringLiteral("usb")) ||
                    device->says(QStringLiteral("export ")));
        return device->json().value(QStringLiteral("simulating")).toString();
    }

    /// What starts the tool so that it sees the device that is simulated.
    QStringList toolBeside() const
    {
        const QString setting =
            device->error().section(QStringLiteral("export "), 1).section('\n', 0, 0);
        return setting.isEmpty() ? QStringList({builtTool()})
                                 : QStringList({QStringLiteral("env"), setting, builtTool()});
    }

    struct Commanded {
        const char* command; ///< as encode takes it
        int answered;        ///< bytes
    };

    /// Makes a capture in which these commands are sent, and so many other bytes answer them.
    void writeCommands(const QString& scheme, const std::vector<Commanded>& commands,
                       qint64 apart = 50'000'000) const
    {
        CaptureWriter writer(1 << 20);
        ASSERT_TRUE(writer.open(file("commands")));
        CaptureRecord record;
        record.link = scheme.toLatin1() + "://recorded";
        record.medium = CaptureRecord::mediumOf(record.link);
        for (const Commanded& one : commands) {
            record.time += apart;
            record.what = What::Sent;
            record.bytes =
                ToolRun(words(QStringLiteral("encode --raw %1").arg(QLatin1String(one.command))))
                    .output;
            writer.add(record);
            record.what = What::Received;
            record.bytes = QByteArray(one.answered, '?');
            writer.add(record);
        }
    }

    QTemporaryDir directory;
    std::unique_ptr<ToolProcess> device;
};

/// Captures commands to a simulated device, replays them to it, has another one answer as it did,
/// and captures that: the bytes are the same.
class Replayed : public CaptureTool, public ::testing::WithParamInterface<const char*>
{
};

} // namespace

TEST_P(Replayed, GivesTheSameBytes)
{
    const QString scheme = QLatin1String(GetParam());
    const bool isOsd = scheme == QStringLiteral("osd");
    const bool isUsb = scheme == QStringLiteral("usb");
    if (isOsd) {
        writeCommands(scheme, {{"--osd --ch2 1 --text one", 3},
                               {"--osd --ch2 2", 3},
                               {"--osd --ch2 3 --data 00ff", 3}});
    } else if (scheme == QStringLiteral("vela")) {
        writeCommands(scheme, {{"--binary --cmd 0x10", 16},
                               {"--binary --cmd 0x9a --dat1 1 --block 00010203", 16 + 4},
                               {"--binary --cmd 0x8b --dat1 5", 16}});
    } else {
        writeCommands(scheme, {{"--cmd 0x10", isUsb ? 64 : 19},
                               {"--cmd 0x9a --dat1 1 --block 00010203", isUsb ? 64 : 19},
                               {"--cmd 0x8b --dat1 5", isUsb ? 3 * 64 : 19 + 145}});
    }
    const QString place = isOsd || scheme == QStringLiteral("udp") ? QStringLiteral("127.0.0.1:0")
                          : isUsb                                  ? QStringLiteral("04b4:1008")
                                                                   : QString();
    QString link = simulate(QStringLiteral("%1://%2 --seed 7").arg(scheme, place));
    const ToolRun first(words(QStringLiteral("replay %1 %2 --timeout 60000 -w %3")
                                  .arg(file("commands"), link, file("first"))),
                        {}, toolBeside());
    EXPECT_EQ(first.code, 1) << "other answers: " << first.error.toStdString();
    const auto recorded = bytesIn(file("first"));
    ASSERT_EQ(recorded.count(What::Received), 1U) << first.error.toStdString();
    EXPECT_EQ(recorded.at(What::Sent), bytesIn(file("commands")).at(What::Sent));

    link = simulate(QStringLiteral("%1://%2 --replay %3").arg(scheme, place, file("first")));
    const ToolRun second(words(QStringLiteral("replay %1 %2 --timeout 60000 -w %3")
                                   .arg(file("first"), link, file("second"))),
                         {}, toolBeside());
    EXPECT_EQ(second.code, 0) << second.output.toStdString() << second.error.toStdString();
    EXPECT_TRUE(second.output.isEmpty()) << "nothing differs";
    const auto replayed = bytesIn(file("second"));
    EXPECT_EQ(replayed.at(What::Sent), recorded.at(What::Sent));
    EXPECT_EQ(replayed.at(What::Received), recorded.at(What::Received));
}

constexpr const char* schemes[] = {"udp", "serial", "vela", "osd",
#ifdef CORE_MANAGE_SHOWS_USB
                                   "usb"
#endif
};
INSTANTIATE_TEST_SUITE_P(Links, Replayed, ::testing::ValuesIn(schemes),
                         [](const auto& which) { return std::string(which.param); });

TEST_F(CaptureTool, TellsWhichAnswersDiffer)
{
    const QString link = simulate(QStringLiteral("udp://127.0.0.1:0 --seed 1"));
    UdpPeer other;
    const ToolRun run(
        words(QStringLiteral("send %1 --cmd 0x8b --dat1 5 --tries 1 --timeout 60000 -w %2")
                  .arg(link, file("wire"))));
    ASSERT_EQ(run.code, 0) << run.error.toStdString();
    // The device goes on counting from elsewhere: the block is another one.
    const ToolRun replay(words(
        QStringLiteral("replay %1 %2 --fast --timeout 60000 --json").arg(file("wire"), link)));
    EXPECT_EQ(replay.code, 1) << replay.error.toStdString();
    EXPECT_EQ(replay.json.value(QStringLiteral("command")).toInt(), 1);
    EXPECT_FALSE(replay.json.value(QStringLiteral("same")).toBool(true));
    EXPECT_EQ(replay.json.value(QStringLiteral("frame")).toString(),
              QString::fromLatin1(QByteArray("<T00008b0500000090>").toHex()));
    const auto bytes = bytesIn(file("wire"));
    EXPECT_EQ(replay.json.value(QStringLiteral("recorded")).toString(),
              QString::fromLatin1(bytes.at(What::Received).toHex()));
    EXPECT_TRUE(replay.json.value(QStringLiteral("received"))
                    .toString()
                    .startsWith(QString::fromLatin1(QByteArray("<F00008b05").toHex())));
    EXPECT_TRUE(replay.error.contains(QStringLiteral("0 answers as recorded")));
    device.reset();
    const QString silent = QStringLiteral("udp://127.0.0.1:%1").arg(other.port());
    const ToolRun nothing(
        words(QStringLiteral("replay %1 %2 --timeout 50").arg(file("wire"), silent)));
    EXPECT_EQ(nothing.code, 1);
    EXPECT_TRUE(nothing.output.startsWith("command 1 <T00008b0500000090>: recorded 164 bytes "));
    EXPECT_TRUE(nothing.output.endsWith(", received nothing\n")) << nothing.output.toStdString();
    EXPECT_EQ(other.receive().bytes, bytes.at(What::Sent));
}

TEST_F(CaptureTool, GoesOnBehindALongerAnswer)
{
    writeCommands(QStringLiteral("udp"), {{"--cmd 0x10", 10}, {"--cmd 0x11", 19}});
    const QString link = simulate(QStringLiteral("udp://127.0.0.1:0"));
    const ToolRun run(words(
        QStringLiteral("replay %1 %2 --fast --timeout 60000 --json").arg(file("commands"), link)));
    EXPECT_EQ(run.code, 1);
    const QList<QByteArray> lines = run.output.trimmed().split('\n');
    ASSERT_EQ(lines.size(), 2);
    const char* answers[] = {"<F0000100000000010>", "<F0000110000000011>"};
    for (int i = 0; i < 2; ++i) {
        const QJsonObject told = QJsonDocument::fromJson(lines.at(i)).object();
        EXPECT_EQ(told.value(QStringLiteral("received")).toString(),
                  QString::fromLatin1(QByteArray(answers[i]).toHex()));
    }
}

TEST_F(CaptureTool, KeepsTheTimesOfTheCommands)
{
    const auto gapOf = [](const QString& path) {
        std::vector<qint64> times;
        for (const CaptureRecord& packet : capturedPackets(path)) {
            if (packet.what == What::Sent) {
                times.push_back(packet.time);
            }
        }
        EXPECT_EQ(times.size(), 2U);
        return times.back() - times.front();
    };
    writeCommands(QStringLiteral("udp"), {{"--cmd 1", 19}, {"--cmd 2", 19}}, 100'000'000'000);
    const QString link = simulate(QStringLiteral("udp://127.0.0.1:0"));
    const auto replay = [&](const char* options) {
        const ToolRun run(
            words(QStringLiteral("replay %1 %2 %3 --timeout 60000 -w %4")
                      .arg(file("commands"), link, QLatin1String(options), file("wire"))));
        EXPECT_EQ(run.code, 1) << run.error.toStdString();
        return gapOf(file("wire"));
    };
    EXPECT_GE(replay("--speed 200"), 500'000'000);
    EXPECT_LT(replay("--fast"), 100'000'000'000);
}

TEST_F(CaptureTool, PipesIntoTshark)
{
    const QString tshark = QStandardPaths::findExecutable(QStringLiteral("tshark"));
    if (tshark.isEmpty()) {
        GTEST_SKIP() << "tshark is missing";
    }
    const QString link = simulate(QStringLiteral("udp://127.0.0.1:0"));
    ToolProcess piped(
        {link}, {},
        {QStringLiteral("sh"), QStringLiteral("-c"),
         QStringLiteral("%1 capture \"$1\" --cmd 0x10 --count 2 -w - | %2 -l -i - -c 2 -T fields "
                        "-e exported_pdu.prot_name -e exported_pdu.src_port")
             .arg(builtTool(), tshark),
         QStringLiteral("sh")});
    EXPECT_EQ(piped.exitCode(), 0) << piped.error().toStdString();
    const QString port = link.section(':', -1);
    EXPECT_EQ(piped.lines(), QStringList({QStringLiteral("coremanage.link\t0"),
                                          QStringLiteral("coremanage.link\t") + port}))
        << piped.error().toStdString();
}

TEST_F(CaptureTool, IsAnInterfaceOfWireshark)
{
    const QString tshark = QStandardPaths::findExecutable(QStringLiteral("tshark"));
    if (tshark.isEmpty()) {
        GTEST_SKIP() << "tshark is missing";
    }
    QProcess folders;
    folders.start(tshark, {QStringLiteral("-G"), QStringLiteral("folders")});
    ASSERT_TRUE(folders.waitForFinished(60000));
    const QString place = QString::fromLocal8Bit(folders.readAllStandardOutput())
                              .section(QStringLiteral("Extcap path:"), 1)
                              .section('\n', 0, 0)
                              .trimmed();
    ASSERT_FALSE(place.isEmpty());
    ASSERT_TRUE(QFile::link(builtTool(), file("coremanage")));
    // Root's tshark looks at no other directory.
    const QString script =
        geteuid() == 0
            ? QStringLiteral("mount --bind '%1' '%2' || exit 77; exec \"$@\"")
                  .arg(directory.path(), place)
            : QStringLiteral("WIRESHARK_EXTCAP_DIR='%1' exec \"$@\"").arg(directory.path());
    QStringList start{QStringLiteral("sh"), QStringLiteral("-c"), script, QStringLiteral("sh"),
                      tshark};
    if (geteuid() == 0) {
        start = QStringList({QStringLiteral("unshare"), QStringLiteral("-m")}) + start;
    }
    const ToolRun list({QStringLiteral("-D")}, {}, start);
    if (list.code == 77) {
        GTEST_SKIP() << "the right to make a mount namespace is missing";
    }
    for (const char* scheme : {"udp", "serial", "vela", "usb", "osd"}) {
        EXPECT_TRUE(list.output.contains(QByteArray("coremanage-") + scheme)) << scheme;
    }
    const QString link = simulate(QStringLiteral("udp://127.0.0.1:0"));
    const ToolRun live(
        words(
            QStringLiteral("-i coremanage-udp -o extcap.coremanage_udp.link:%1 -o "
                           "extcap.coremanage_udp.cmd:0x10 -c 2 -T fields -e exported_pdu.src_port")
                .arg(link)),
        {}, start);
    EXPECT_EQ(live.code, 0) << live.error.toStdString();
    EXPECT_EQ(live.output, "0\n" + link.section(':', -1).toLatin1() + '\n')
        << live.error.toStdString();
}

TEST_F(CaptureTool, HoldsSeveralLinks)
{
    const QString udp = simulate(QStringLiteral("udp://127.0.0.1:0"));
    ToolProcess line(words(QStringLiteral("simulate serial:// --json")));
    ASSERT_TRUE(line.says(QStringLiteral("\n")));
    const QString serial = line.json().value(QStringLiteral("simulating")).toString();
    ToolProcess capture(
        words(QStringLiteral("capture %1 %2 --cmd 1 -w %3").arg(udp, serial, file("wire"))));
    ASSERT_TRUE(eventually([&] {
        std::map<QByteArray, int> received;
        if (QFileInfo(file("wire")).size() < 24) { // no head yet
            return false;
        }
        for (const CaptureRecord& packet : capturedPackets(file("wire"))) {
            received[packet.link] +=
                packet.what == What::Received ? static_cast<int>(packet.bytes.size()) : 0;
        }
        return received[udp.toUtf8()] == 19 && received[serial.toUtf8()] == 19;
    })) << capture.error().toStdString();
    capture.interrupt();
    EXPECT_EQ(capture.exitCode(), 0) << capture.error().toStdString();
    const ToolRun replay(
        words(QStringLiteral("replay %1 %2 --fast --timeout 60000").arg(file("wire"), serial)));
    EXPECT_EQ(replay.code, 0) << replay.error.toStdString() << replay.output.toStdString();
}

TEST_F(CaptureTool, SaysWhatIsWrong)
{
    const auto fails = [](const QString& arguments, const char* because) {
        const ToolRun run(words(arguments));
        EXPECT_EQ(run.code, 2) << arguments.toStdString();
        EXPECT_TRUE(run.error.contains(QLatin1String(because))) << run.error.toStdString();
    };
    QFile text(file("text"));
    ASSERT_TRUE(text.open(QIODevice::WriteOnly));
    text.write("no capture, but long enough to be looked at");
    text.close();
    fails(QStringLiteral("capture udp://127.0.0.1"), "--write is missing");
    fails(QStringLiteral("send udp://127.0.0.1 --cmd 1 -w -"), "standard output has the results");
    fails(QStringLiteral("capture udp://127.0.0.1 -w %1").arg(file("none/wire")), "No such file");
    fails(QStringLiteral("replay %1 udp://127.0.0.1").arg(file("none")), "No such file");
    fails(QStringLiteral("replay %1 udp://127.0.0.1").arg(file("text")), "unknown file format");
    fails(QStringLiteral("replay %1 udp://127.0.0.1 --fast --speed 2").arg(file("text")), "--fast");
    fails(QStringLiteral("simulate udp://127.0.0.1:0 --replay %1").arg(file("text")),
          "unknown file format");
    fails(QStringLiteral("--extcap-interface coremanage-tcp --extcap-config"),
          "--extcap-interfaces lists");
    fails(QStringLiteral("--extcap-interface coremanage-udp --capture --fifo %1").arg(file("text")),
          "the link is missing");
    const ToolRun full(
        QStringLiteral("send udp://127.0.0.1:9 --cmd 1 --timeout 0 -w /dev/full").split(' '));
    EXPECT_TRUE(full.error.contains(QStringLiteral("No space left on device")))
        << full.error.toStdString();
}
