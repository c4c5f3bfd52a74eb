// SPDX-License-Identifier: MIT
#include "replybytes.h"
#include "tests/transports/udppeer.h"
#include "toolprocess.h"

#include <gtest/gtest.h>

#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>

namespace
{

QString example(const char* name)
{
    return QStringLiteral(ANSWERS_EXAMPLES "/") + QLatin1String(name);
}

/// coremanage simulate LINK --answers FILE --json, and the lines that it prints.
class Answering
{
public:
    Answering(const char* link, const QString& file)
        : tool({QStringLiteral("simulate"), QLatin1String(link), QStringLiteral("--answers"), file,
                QStringLiteral("--json")})
    {
        EXPECT_TRUE(tool.says(QStringLiteral("\n"))) << tool.error().toStdString();
        address = tool.json().value(QStringLiteral("simulating")).toString();
    }

    /// What it writes in answer to the next command, once it has come.
    QList<QByteArray> next()
    {
        ++commands;
        EXPECT_TRUE(eventually([this] {
            tool.says(QString());
            return tool.output().count('\n') > commands;
        })) << tool.error().toStdString();
        const QJsonObject told =
            QJsonDocument::fromJson(tool.lines().value(commands).toUtf8()).object();
        QList<QByteArray> pieces;
        for (const QJsonValue piece : told.value(QStringLiteral("answer")).toArray()) {
            pieces << QByteArray::fromHex(piece.toString().toLatin1());
        }
        return pieces;
    }

    ToolProcess tool;
    QString address;
    int commands = 0;
};

/// A device over UDP, and a host that the test plays.
struct UdpAnswering : Answering {
    explicit UdpAnswering(const char* name) : Answering("udp://127.0.0.1:0", example(name))
    {
        port = address.section(QLatin1Char(':'), -1).toUShort();
    }

    QList<QByteArray> ask(int code, int subCode)
    {
        QByteArray command = replybytes::text(code, subCode);
        command[1] = 'T';
        host.send(command, port);
        return next();
    }

    UdpPeer host;
    quint16 port = 0;
};

enum class Phase { Silent, Busy, Ready };

Phase phase(const QList<QByteArray>& answer)
{
    return answer.isEmpty()             ? Phase::Silent
           : answer[0].contains("ee10") ? Phase::Busy
                                        : Phase::Ready;
}

// How long each phase is looked at is not in the test's hands, which phase follows which is.
TEST(AnswersExample, ADeviceThatBootsSlowly)
{
    constexpr qint64 bootMs = 3000 - 1; // a second off, two seconds busy; in whole milliseconds
    QElapsedTimer clock;
    clock.start();
    UdpAnswering device("slow-boot.json");
    const auto bootsUp = [&device] {
        Phase last = Phase::Silent;
        while (last != Phase::Ready) {
            const auto answer = device.ask(0x10, 0x02);
            const Phase now = phase(answer);
            EXPECT_GE(now, last);
            last = now;
            if (now != Phase::Silent) {
                EXPECT_EQ(device.host.receive().bytes, answer.at(0)) << "on the wire as told";
            }
        }
    };
    bootsUp();
    EXPECT_GE(clock.elapsed(), bootMs);
    clock.start();
    EXPECT_EQ(phase(device.ask(0x01, 0x01)), Phase::Ready) << "the answer to the restart";
    EXPECT_EQ(device.host.receive().bytes.left(8), QByteArray("<F5a0101"));
    bootsUp();
    EXPECT_GE(clock.elapsed(), bootMs);
}

TEST(AnswersExample, ADeviceThatFailsEveryTenthUpdate)
{
    UdpAnswering device("failing-update.json");
    const QByteArray good = replybytes::text(0x9a, 0x01);
    for (int i = 1; i <= 60; ++i) {
        const auto answer = device.ask(0x9a, 0x01);
        if (i % 10 != 0) {
            EXPECT_EQ(answer, QList<QByteArray>{good}) << i;
        } else if (i % 30 == 10) {
            EXPECT_EQ(answer, QList<QByteArray>{replybytes::text(0x9a, 0xff)}) << i;
        } else if (i % 30 == 20) {
            EXPECT_TRUE(answer.isEmpty()) << i;
        } else {
            ASSERT_EQ(answer.size(), 1) << i;
            EXPECT_NE(answer, QList<QByteArray>{good}) << i;
            EXPECT_EQ(answer[0].left(16), good.left(16)) << i << ": only the checksum is another";
        }
        if (!answer.isEmpty()) {
            EXPECT_EQ(device.host.receive().bytes, answer[0]) << i;
        }
        EXPECT_EQ(device.ask(0x10, 0x01), QList<QByteArray>{replybytes::text(0x10, 0x01)});
        device.host.receive();
    }
}

QJsonObject reply(const QString& link, const char* options, const QStringList& tool = {builtTool()})
{
    const ToolRun run(
        words(
            QStringLiteral("send %1 --timeout 20000 --json %2").arg(link, QLatin1String(options))),
        {}, tool);
    EXPECT_EQ(run.code, 0) << run.error.toStdString();
    return run.json.value(QStringLiteral("replies")).toArray().at(0).toObject();
}

// On a stream a text reply's block keeps its checksum.
void pagesThrough(const QString& link, bool hasChecksum, const QStringList& tool = {builtTool()})
{
    QFile file(example("pages.txt"));
    ASSERT_TRUE(file.open(QIODevice::ReadOnly));
    const QByteArray all = file.readAll();
    ASSERT_GT(all.size(), 180);
    QByteArray joined;
    for (const int number : {0, 1, 2, 0x80, 0}) {
        const QJsonObject page = reply(link, "--cmd 0x8e --dat1 0x27", tool);
        EXPECT_EQ(page.value(QStringLiteral("dat2")).toInt(), number);
        QByteArray block =
            QByteArray::fromHex(page.value(QStringLiteral("block")).toString().toLatin1());
        EXPECT_EQ(page.value(QStringLiteral("dat3")).toInt(), block.size());
        block.chop(hasChecksum ? 1 : 0);
        joined += block;
    }
    EXPECT_EQ(joined, all + all.left(60));
    reply(link, "--cmd 0x10 --dat1 1", tool);
    EXPECT_EQ(reply(link, "--cmd 0x8e --dat1 0x27", tool).value(QStringLiteral("dat2")).toInt(), 0);
    EXPECT_EQ(reply(link, "--cmd 0x79 --dat1 1 --dat2 3", tool)
                  .value(QStringLiteral("block_length"))
                  .toInt(),
              all.size() - 180 + (hasChecksum ? 1 : 0));
}

TEST(AnswersExample, ADeviceThatPagesThroughBlocksOverUdp)
{
    const Answering device("udp://127.0.0.1:0", example("pages.json"));
    pagesThrough(device.address, false);
}

TEST(AnswersExample, ADeviceThatPagesThroughBlocksOverSerial)
{
    const Answering device("serial://", example("pages.json"));
    pagesThrough(device.address, true);
}

#ifdef CORE_MANAGE_SHOWS_USB
TEST(AnswersExample, ADeviceThatPagesThroughBlocksOverUsb)
{
    Answering device("usb://1209:00ab", example("pages.json"));
    ASSERT_TRUE(device.tool.says(QStringLiteral("export UMOCKDEV_DIR=/")));
    const QString variable =
        device.tool.error().section(QStringLiteral("export "), 1).section(QLatin1Char('\n'), 0, 0);
    pagesThrough(device.address, true, {QStringLiteral("env"), variable, builtTool()});
}
#endif

/// A file of answers for one test.
class Answers : public ::testing::Test
{
protected:
    QString write(const char* name, const QByteArray& content)
    {
        QFile file(directory.filePath(QLatin1String(name)));
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        EXPECT_EQ(file.write(content), content.size());
        return file.fileName();
    }

    void expectRefused(const char* link, const QByteArray& content, const char* because)
    {
        const QString path = write("answers.json", content);
        const ToolRun run(
            {QStringLiteral("simulate"), QLatin1String(link), QStringLiteral("--answers"), path});
        EXPECT_EQ(run.code, 2);
        EXPECT_EQ(run.error.toStdString(),
                  ("coremanage: " + path + QLatin1String(because) + "\n").toStdString());
        EXPECT_TRUE(run.output.isEmpty());
    }

    QTemporaryDir directory;
};

TEST_F(Answers, AnswerInBinary)
{
    const QString file = write("answers.json", R"({"rules": [
        {"when": {"aux4": "0x0405"}, "reply": {"aux5": "0x1234"}, "block": "aabb"}]})");
    const Answering device("vela://", file);
    const QJsonObject met = reply(device.address, "--cmd 6 --aux4 0x0405");
    EXPECT_EQ(met.value(QStringLiteral("aux5")).toInt(), 0x1234);
    EXPECT_EQ(met.value(QStringLiteral("block")).toString(), QStringLiteral("aabb"));
    EXPECT_EQ(reply(device.address, "--cmd 6").value(QStringLiteral("aux5")).toInt(), 0);
}

TEST_F(Answers, AreOfOneDeviceOnAllConnectionsOfAnEndpoint)
{
    const QString file = write("answers.json", R"({"counters": {"n": 65}, "rules": [
        {"when": {"ch2": 1}, "reply": {"status": "n"}, "add": {"n": 1}}]})");
    const Answering device("osd://127.0.0.1:0", file);
    for (const int status : {65, 66, 67}) { // each run connects anew
        EXPECT_EQ(reply(device.address, "--ch2 1").value(QStringLiteral("status")).toInt(), status);
    }
    EXPECT_EQ(reply(device.address, "--ch2 2").value(QStringLiteral("status")).toInt(), 2);
}

TEST_F(Answers, MayFailOnAWire)
{
    const QString file = write("answers.json", R"({"rules": [
        {"when": {"cmd": 1}, "reply": false, "faults": ["hang-up"]}]})");
    Answering device("serial://", file);
    EXPECT_EQ(reply(device.address, "--cmd 2").value(QStringLiteral("cmd")).toInt(), 2);
    const ToolRun run(words(QStringLiteral("send %1 --cmd 1 --timeout 20000").arg(device.address)));
    EXPECT_EQ(run.code, 1);
    EXPECT_TRUE(run.error.contains(QStringLiteral("the device has gone")))
        << run.error.toStdString();
    EXPECT_EQ(device.tool.exitCode(), 1);
    EXPECT_TRUE(device.tool.error().contains(QStringLiteral("hung up, as asked")));
}

TEST_F(Answers, AreRefusedWhereTheyAreWrong)
{
    expectRefused("udp://127.0.0.1:0", R"({"rules": [{}, {}, {"reply": {"dat1": "300"}}]})",
                  ": rules[2].reply.dat1: invalid value \"300\" (expected 0 to 255)");
    expectRefused("serial://", R"({"rules": [{"when": {"ch2": 1}}]})",
                  ": rules[0].when: unknown \"ch2\" (expected state, block, head, addr, cmd, dat1, "
                  "dat2, dat3, dat4)");
    expectRefused("osd://127.0.0.1:0", R"({"rules": [{"faults": ["noise"]}]})",
                  ": rules[0].faults[0]: the link has no noise: leave it out");
    expectRefused(
        "udp://127.0.0.1:0", R"({"rules": [{"block": {"file": "none"}}]})",
        (QStringLiteral(": rules[0].block.file: invalid value \"%1\" (expected a readable "
                        "file: No such file or directory)")
             .arg(directory.filePath(QStringLiteral("none"))))
            .toLatin1()
            .constData());
    const ToolRun missing(words(QStringLiteral("simulate udp://127.0.0.1:0 --answers none.json")));
    EXPECT_EQ(missing.code, 2);
    EXPECT_EQ(
        missing.error.toStdString(),
        "coremanage: --answers: invalid value \"none.json\" (expected a readable file: No such "
        "file or directory)\n");
}

TEST_F(Answers, NeedAFile)
{
    for (const QString& none : {QString(), directory.path()}) {
        const ToolRun run({QStringLiteral("simulate"), QStringLiteral("udp://127.0.0.1:0"),
                           QStringLiteral("--answers"), none});
        EXPECT_EQ(run.code, 2);
        EXPECT_TRUE(run.error.startsWith(QStringLiteral("coremanage: --answers: ")));
    }
}

TEST_F(Answers, MayComeFromAPipe)
{
    ToolProcess tool(words(QStringLiteral("simulate udp://127.0.0.1:0 --answers - --count 1")),
                     R"({"rules": [{"reply": {"dat1": 9}}]})");
    ASSERT_TRUE(tool.says(QStringLiteral("udp://127.0.0.1:")));
    ASSERT_TRUE(tool.says(QStringLiteral("\n")));
    UdpPeer host;
    host.send("<T5a0110020000006d>",
              tool.lines().value(0).section(QLatin1Char(':'), -1).toUShort());
    EXPECT_EQ(host.receive().bytes, QByteArray("<F5a01100900000074>"));
    EXPECT_EQ(tool.exitCode(), 0);
}

} // namespace
