// SPDX-License-Identifier: MIT
#include "eventually.h"
#include "processstate.h"
#include "toolprocess.h"

#include <gtest/gtest.h>

#include <QElapsedTimer>
#include <QHostAddress>
#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QTcpSocket>

#include <vector>

#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace
{

const QByteArray updateFrame = QByteArray::fromHex("210304050708aabb090a");

/// coremanage simulate osd://, and a host that the test plays.
class OsdSimulate : public ::testing::Test
{
protected:
    void simulate(const char* options, const char* place = "osd://127.0.0.1:0?data=2")
    {
        tool = std::make_unique<ToolProcess>(words(
            QStringLiteral("simulate %1 %2").arg(QLatin1String(place), QLatin1String(options))));
        ASSERT_TRUE(tool->says(QStringLiteral("osd://127.0.0.1:")));
        ASSERT_TRUE(tool->says(QStringLiteral("\n")));
        link = QRegularExpression(QStringLiteral("osd://127\\.0\\.0\\.1:\\d+"))
                   .match(tool->lines().value(0))
                   .captured();
        host.connectToHost(QHostAddress(QHostAddress::LocalHost),
                           link.section(QLatin1Char(':'), -1).toUShort());
    }

    void send(const QByteArray& bytes)
    {
        ASSERT_TRUE(eventually([this] { return host.state() == QTcpSocket::ConnectedState; }));
        host.write(bytes);
    }

    bool reads(const QByteArray& expected)
    {
        return eventually([&] {
            read += host.readAll();
            return read == expected;
        });
    }

    // How many pieces with data have come, as TCP counts them.
    unsigned segments() const
    {
        tcp_info info{};
        socklen_t size = sizeof info;
        EXPECT_EQ(getsockopt(static_cast<int>(host.socketDescriptor()), IPPROTO_TCP, TCP_INFO,
                             &info, &size),
                  0);
        return info.tcpi_data_segs_in;
    }

    bool hangsUp()
    {
        return eventually([this] { return host.state() == QTcpSocket::UnconnectedState; });
    }

    std::unique_ptr<ToolProcess> tool;
    QString link;
    QTcpSocket host;
    QByteArray read;
};

} // namespace

TEST_F(OsdSimulate, AcknowledgesCommandsUntilCtrlC)
{
    simulate("");
    send(updateFrame + updateFrame.left(4));
    EXPECT_TRUE(reads("OK!"));
    send(updateFrame.mid(4));
    EXPECT_TRUE(reads("OK!OK!"));
    EXPECT_TRUE(tool->says(QStringLiteral(" ch2 21 ch3 03 ch5 04 ch4 05 ch7 07 ch8 08 ch9 09 ch10 "
                                          "0a data 2 bytes: aa bb -> 3 bytes\n")));
    tool->interrupt();
    EXPECT_EQ(tool->exitCode(), 0);
    EXPECT_TRUE(tool->error().startsWith(QStringLiteral("2 commands in ")));
    EXPECT_TRUE(tool->error().contains(
        QStringLiteral("0 answers with faults, 6 bytes sent, 0 bytes that were no command")));
}

TEST_F(OsdSimulate, TakesWhateverComesUntilTheLineIsQuiet)
{
    simulate("--count 1 --json", "osd://127.0.0.1:0");
    send("short");
    ASSERT_TRUE(eventually([this] { return host.bytesToWrite() == 0; }));
    // A quiet moment: it has nothing to do and waits, so often that the moment is over.
    constexpr long waits = 50;
    const long before = processstate::waits(tool->id());
    ASSERT_TRUE(eventually([&] { return processstate::waits(tool->id()) > before + waits; }));
    send(updateFrame + "!!");
    EXPECT_EQ(tool->exitCode(), 0);
    EXPECT_TRUE(tool->error().contains(QStringLiteral("5 bytes that were no command")))
        << tool->error().toStdString();
    ASSERT_EQ(tool->lines().size(), 2);
    const auto json = QJsonDocument::fromJson(tool->lines().at(1).toUtf8()).object();
    EXPECT_EQ(json.value(QStringLiteral("data")).toString(), QStringLiteral("aabb090a"));
    EXPECT_EQ(json.value(QStringLiteral("ch10")).toInt(), '!');
    EXPECT_EQ(json.value(QStringLiteral("answer")).toArray(),
              QJsonArray({QStringLiteral("4f4b21")}));
}

TEST_F(OsdSimulate, SplitsItsAnswers)
{
    simulate("--fault split=1:150");
    QElapsedTimer clock;
    clock.start();
    send(updateFrame);
    EXPECT_TRUE(reads("OK!"));
    EXPECT_GE(clock.elapsed(), 300);
    EXPECT_EQ(segments(), 3U) << "however many bytes are read at once";
    send(updateFrame);
    EXPECT_TRUE(reads("OK!OK!"));
    EXPECT_EQ(segments(), 4U);
}

TEST_F(OsdSimulate, IsLateOrSilent)
{
    simulate("--fault drop=1 --fault delay=100%:200 --count 2 --json");
    QElapsedTimer clock;
    clock.start();
    send(updateFrame);
    send(updateFrame);
    EXPECT_TRUE(reads("OK!"));
    EXPECT_GE(clock.elapsed(), 190);
    EXPECT_EQ(tool->exitCode(), 0);
    const auto faultsOf = [this](int line) {
        return QJsonDocument::fromJson(tool->lines().at(line).toUtf8())
            .object()
            .value(QStringLiteral("faults"))
            .toArray();
    };
    ASSERT_EQ(tool->lines().size(), 3);
    EXPECT_EQ(faultsOf(1), QJsonArray({QStringLiteral("drop")}));
    EXPECT_EQ(faultsOf(2), QJsonArray({QStringLiteral("delay")}));
}

TEST_F(OsdSimulate, SendsGarbageBeforeAndFloods)
{
    simulate("--fault garbage=1:7 --fault flood=2:100000");
    send(updateFrame);
    EXPECT_TRUE(eventually([this] { return host.bytesAvailable() == qint64{100'000} * (7 + 3); }));
    const QByteArray first = host.readAll();
    EXPECT_EQ(first.count("OK!"), 100'000);
    EXPECT_FALSE(first.left(7).contains('O'));
    send(updateFrame);
    EXPECT_TRUE(eventually([this] { return host.bytesAvailable() == qint64{100'000} * 3; }));
}

TEST_F(OsdSimulate, HangsUpOrResets)
{
    simulate("--fault hang-up=1 --fault reset=1");
    send(updateFrame);
    ASSERT_TRUE(hangsUp());
    EXPECT_TRUE(host.readAll().isEmpty()) << "a reset comes first";
    host.connectToHost(QHostAddress(QHostAddress::LocalHost),
                       link.section(QLatin1Char(':'), -1).toUShort());
    send(updateFrame);
    ASSERT_TRUE(hangsUp());
    EXPECT_EQ(host.readAll(), QByteArray("O"));
}

TEST_F(OsdSimulate, ClosesAfterSoManyBytes)
{
    simulate("--fault close-after=1:15");
    send(updateFrame);
    EXPECT_TRUE(reads("OK!"));
    send(updateFrame.left(5));
    EXPECT_TRUE(hangsUp());
}

TEST_F(OsdSimulate, Refuses)
{
    simulate("--fault refuse");
    EXPECT_TRUE(eventually([this] { return host.error() == QTcpSocket::ConnectionRefusedError; }));
}

TEST_F(OsdSimulate, NeverReads)
{
    simulate("--fault never-read");
    const int much = 64 * 1024 * 1024;
    send(QByteArray(much, 'm'));
    EXPECT_FALSE(
        eventually([this] { return host.bytesToWrite() == 0; }, std::chrono::milliseconds(300)));
    tool->interrupt();
    EXPECT_EQ(tool->exitCode(), 0);
    EXPECT_TRUE(tool->error().startsWith(QStringLiteral("0 commands")));
}

TEST_F(OsdSimulate, SaysWhenItsPortIsTaken)
{
    simulate("");
    const ToolRun run(words(QStringLiteral("simulate ") + link));
    EXPECT_EQ(run.code, 3);
    EXPECT_TRUE(run.error.contains(QStringLiteral(": port %1 is taken: give another one, or 0")
                                       .arg(link.section(QLatin1Char(':'), -1))))
        << run.error.toStdString();
    const ToolRun foreign(words(QStringLiteral("simulate osd://192.0.2.1:0")));
    EXPECT_EQ(foreign.code, 3);
    EXPECT_TRUE(foreign.error.contains(QStringLiteral("give one of its own, or 127.0.0.1")))
        << foreign.error.toStdString();
}

// The tool at both ends: what one endpoint does wrong is its own affair.
TEST_F(OsdSimulate, ServesTheToolItself)
{
    simulate("");
    std::vector<std::unique_ptr<ToolProcess>> others;
    const auto other = [&](const char* ip, const char* fault) {
        others.push_back(std::make_unique<ToolProcess>(
            words(QStringLiteral("simulate osd://%1 --fault %2")
                      .arg(QLatin1String(ip), QLatin1String(fault)))));
        EXPECT_TRUE(others.back()->says(QLatin1String(ip)));
    };
    other("127.0.0.2", "refuse");
    other("127.0.0.3", "never-read");
    other("127.0.0.4", "reset=1");
    other("127.0.0.5", "flood=1:300");
    other("127.0.0.6", "split=1:20");
    other("127.0.0.7", "garbage=1:5000");
    const ToolRun run(words(
        QStringLiteral("send %1 osd://127.0.0.2 osd://127.0.0.3 osd://127.0.0.4 osd://127.0.0.5 "
                       "osd://127.0.0.6 osd://127.0.0.7 --ch2 33 --data aabb --timeout 10000")
            .arg(link)));
    EXPECT_EQ(run.code, 1);
    for (const char* ip : {"127.0.0.1", "127.0.0.5", "127.0.0.6", "127.0.0.7"}) {
        EXPECT_TRUE(run.output.contains(QByteArray("reply from ") + ip + " OK 21\n")) << ip;
        EXPECT_FALSE(run.error.contains(QLatin1String(ip))) << ip;
    }
    for (const char* text : {"127.0.0.2 takes no connection",
                             "127.0.0.3 gave no reply within 10000", "127.0.0.4 has hung up"}) {
        EXPECT_TRUE(run.error.contains(QLatin1String(text))) << run.error.toStdString();
    }
    EXPECT_EQ(run.error.count(QLatin1Char('\n')), 1);
}
