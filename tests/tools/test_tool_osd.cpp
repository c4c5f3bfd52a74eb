// SPDX-License-Identifier: MIT
#include "osdpeer.h"
#include "toolprocess.h"

#include <gtest/gtest.h>

#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonDocument>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

const QByteArray frame = QByteArray::fromHex("010204030607") + "Gate\x08\x09";
const QString fields =
    QStringLiteral("--ch2 1 --ch3 2 --ch4 3 --ch5 4 --ch7 6 --ch8 7 --ch9 8 --ch10 9 --text Gate");

/// coremanage and the endpoints that the test plays.
class OsdTool : public ::testing::Test
{
protected:
    std::unique_ptr<ToolProcess> run(const char* subcommand, const std::vector<OsdPeer*>& peers,
                                     const QString& options)
    {
        QStringList arguments{QLatin1String(subcommand)};
        for (const OsdPeer* peer : peers) {
            arguments << peer->link();
        }
        arguments += words(options);
        if (QLatin1String(subcommand) == QLatin1String("send") &&
            !arguments.contains(QStringLiteral("--timeout"))) {
            arguments << QStringLiteral("--timeout") << QStringLiteral("60000");
        }
        return std::make_unique<ToolProcess>(arguments);
    }

    static void acknowledge(OsdPeer& peer, char status)
    {
        EXPECT_EQ(peer.receive(frame.size()), frame);
        peer.answer(QByteArray("OK") + status);
    }

    OsdPeer first{"127.0.0.1"};
    OsdPeer second{"127.0.0.2"};
    OsdPeer third{"127.0.0.3"};
};

// A listener whose queue is full: the system does not answer another attempt to connect.
class HangingEndpoint
{
public:
    HangingEndpoint()
    {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK + 8); // 127.0.0.9
        listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        socklen_t length = sizeof address;
        EXPECT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&address), length), 0);
        EXPECT_EQ(listen(listener, 0), 0);
        getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
        port = ntohs(address.sin_port);
        for (int& client : clients) {
            client = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
            static_cast<void>(
                connect(client, reinterpret_cast<const sockaddr*>(&address), sizeof address));
        }
    }
    ~HangingEndpoint()
    {
        for (const int client : clients) {
            close(client);
        }
        close(listener);
    }
    HangingEndpoint(const HangingEndpoint&) = delete;
    HangingEndpoint& operator=(const HangingEndpoint&) = delete;

    QString link() const { return QStringLiteral("osd://127.0.0.9:%1").arg(port); }

private:
    int listener;
    quint16 port = 0;
    int clients[4] = {};
};

} // namespace

TEST_F(OsdTool, SendsARecordAndShowsItsAcknowledgement)
{
    const auto tool = run("send", {&first}, fields);
    acknowledge(first, 'z');
    EXPECT_EQ(tool->exitCode(), 0) << tool->error().toStdString();
    EXPECT_EQ(tool->lines(),
              QStringList({QStringLiteral("sent 01 02 04 03 06 07 47 61 74 65 08 09"),
                           QStringLiteral("reply from 127.0.0.1 OK 7a")}));
    EXPECT_TRUE(tool->error().isEmpty()) << tool->error().toStdString();
    EXPECT_FALSE(first.hasBytes()) << "sent once";
}

TEST_F(OsdTool, SendsToSeveralEndpointsAndTellsWhoAcknowledgedWhat)
{
    const auto tool = run("send", {&first, &second, &third}, fields + QStringLiteral(" --json"));
    acknowledge(third, '3');
    acknowledge(second, '2');
    acknowledge(first, '1');
    EXPECT_EQ(tool->exitCode(), 0) << tool->error().toStdString();
    const QJsonObject json = tool->json();
    EXPECT_TRUE(json.value(QStringLiteral("ok")).toBool());
    EXPECT_EQ(json.value(QStringLiteral("sent")).toObject().value(QStringLiteral("frame")),
              QString::fromLatin1(frame.toHex()));
    QStringList seen;
    for (const QJsonValue value : json.value(QStringLiteral("replies")).toArray()) {
        const QJsonObject reply = value.toObject();
        seen << reply.value(QStringLiteral("from")).toString() + QLatin1Char('=') +
                    reply.value(QStringLiteral("acknowledgement")).toString();
        EXPECT_FALSE(reply.value(QStringLiteral("time")).toString().isEmpty());
    }
    seen.sort();
    EXPECT_EQ(seen,
              QStringList({QStringLiteral("127.0.0.1=4f4b31"), QStringLiteral("127.0.0.2=4f4b32"),
                           QStringLiteral("127.0.0.3=4f4b33")}));
    const QJsonArray endpoints = json.value(QStringLiteral("endpoints")).toArray();
    ASSERT_EQ(endpoints.size(), 3);
    EXPECT_EQ(endpoints.at(1).toObject(),
              QJsonObject({{QStringLiteral("address"), QStringLiteral("127.0.0.2")},
                           {QStringLiteral("replies"), 1},
                           {QStringLiteral("trouble"), QString()}}));
}

TEST_F(OsdTool, SendsToTheChosenOnly)
{
    const auto tool = run("send", {&first, &second, &third},
                          fields + QStringLiteral(" --to 127.0.0.1,127.0.0.3"));
    acknowledge(first, '1');
    acknowledge(third, '3');
    EXPECT_EQ(tool->exitCode(), 0) << tool->error().toStdString();
    EXPECT_EQ(tool->lines().size(), 3);
    EXPECT_FALSE(second.hasBytes());
}

TEST_F(OsdTool, SendsDataOfEveryKind)
{
    const QTemporaryDir directory;
    QFile file(directory.filePath(QStringLiteral("data")));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(QByteArray(100'000, 'x'));
    file.close();
    const struct {
        QStringList option;
        QByteArray data;
    } cases[] = {
        {{QStringLiteral("--data"), QStringLiteral("00 ff:10")}, QByteArray("\x00\xff\x10", 3)},
        {{QStringLiteral("--data"), QStringLiteral("@") + file.fileName()},
         QByteArray(100'000, 'x')},
        {{QStringLiteral("--text"), QString::fromUtf8("Säge 5")}, "S\xc3\xa4ge 5"},
        {{QStringLiteral("--ch2"), QStringLiteral("0")}, ""},
    };
    for (const auto& one : cases) {
        ToolProcess tool(QStringList{QStringLiteral("send"), first.link(),
                                     QStringLiteral("--timeout"), QStringLiteral("60000")} +
                         one.option);
        EXPECT_EQ(first.receive(8 + one.data.size()),
                  QByteArray(6, '\0') + one.data + QByteArray(2, '\0'));
        first.answer("OK1");
        EXPECT_EQ(tool.exitCode(), 0) << tool.error().toStdString();
    }
}

TEST_F(OsdTool, NamesTheOneThatRefusesAndServesTheOthers)
{
    second.refuse();
    ToolProcess tool(QStringList{QStringLiteral("send"), first.link(),
                                 QStringLiteral("osd://127.0.0.2:9"), third.link()} +
                     words(fields + QStringLiteral(" --timeout 60000")));
    acknowledge(first, '1');
    acknowledge(third, '3');
    EXPECT_EQ(tool.exitCode(), 1);
    EXPECT_EQ(
        tool.error().toStdString(),
        std::string("coremanage: 127.0.0.2 takes no connection: is it on, "
                    "and is that its port?; a connection was refused once: is 9 its port?\n"));
    EXPECT_EQ(tool.lines().size(), 3) << "what was sent, and two acknowledgements";
}

TEST_F(OsdTool, NamesTheOneThatHangsAndServesTheOthers)
{
    const HangingEndpoint hanging;
    ToolProcess tool(QStringList{QStringLiteral("send"), hanging.link(), first.link(),
                                 QStringLiteral("--json")} +
                     words(fields + QStringLiteral(" --timeout 60000")));
    acknowledge(first, '1');
    EXPECT_EQ(tool.exitCode(), 1);
    EXPECT_TRUE(
        tool.error().startsWith(QStringLiteral("coremanage: 127.0.0.9 takes no connection")))
        << tool.error().toStdString();
    EXPECT_EQ(tool.json().value(QStringLiteral("replies")).toArray().size(), 1);
}

TEST_F(OsdTool, NoneThatCanBeReachedIsALinkThatCannotBeOpened)
{
    const ToolRun send(words(QStringLiteral("send osd://127.0.0.1:9 osd://127.0.0.2:9 ") + fields));
    EXPECT_EQ(send.code, 3);
    EXPECT_TRUE(send.output.isEmpty()) << "nothing was sent";
    EXPECT_EQ(send.error.count(QStringLiteral("takes no connection")), 2);
    EXPECT_EQ(send.error.count(QLatin1Char('\n')), 1);
    const ToolRun listen(words(QStringLiteral("listen osd://127.0.0.1:9")));
    EXPECT_EQ(listen.code, 3);
    EXPECT_TRUE(listen.error.contains(QStringLiteral("127.0.0.1:9 takes no connection")));
}

TEST_F(OsdTool, NamesTheOneThatIsSilent)
{
    const auto tool = run("send", {&first, &second}, fields + QStringLiteral(" --timeout 5000"));
    acknowledge(first, '1');
    EXPECT_EQ(second.receive(frame.size()), frame);
    second.answer("noise, no acknowledgement");
    EXPECT_EQ(tool->exitCode(), 1);
    EXPECT_EQ(
        tool->error(),
        QStringLiteral("coremanage: 127.0.0.2 gave no reply within 5000 ms: 25 bytes came and "
                       "none was a reply: 6e 6f 69 73 65 2c 20 6e 6f 20 61 63 6b 6e 6f 77 "
                       "...\n"));
    EXPECT_TRUE(tool->output().contains("reply from 127.0.0.1 OK 31\n"));
}

TEST_F(OsdTool, TriesTheSilentAgain)
{
    const auto tool =
        run("send", {&first, &second}, fields + QStringLiteral(" --timeout 300 --tries 200"));
    acknowledge(first, '1');
    // Another try may have come before that was seen; from then on only the second one is tried.
    EXPECT_TRUE(eventually([this] {
        return second.bytesThere() >= first.bytesThere() + qint64{3} * frame.size();
    })) << "the first one had replied";
    second.answer("OK2");
    EXPECT_EQ(tool->exitCode(), 0) << tool->error().toStdString();
    EXPECT_TRUE(tool->output().contains("reply from 127.0.0.1 OK 31\n"));
    EXPECT_TRUE(tool->output().contains("reply from 127.0.0.2 OK 32\n"));
}

TEST_F(OsdTool, NamesTheOneThatHangsUp)
{
    const auto tool = run("send", {&first, &second}, fields + QStringLiteral(" --timeout 60000"));
    acknowledge(first, '1');
    EXPECT_EQ(second.receive(frame.size()), frame);
    second.hangUp();
    EXPECT_EQ(tool->exitCode(), 1) << "long before the time-out";
    EXPECT_EQ(tool->error(), QStringLiteral("coremanage: 127.0.0.2 has hung up\n"));
}

TEST_F(OsdTool, TakesTheAnswerOfOneThatHangsUpAtOnce)
{
    const auto tool = run("send", {&first}, fields + QStringLiteral(" --timeout 60000"));
    acknowledge(first, '1');
    first.hangUp();
    EXPECT_EQ(tool->exitCode(), 0) << tool->error().toStdString();
}

TEST_F(OsdTool, TakesAnswersInPiecesBehindNoiseAndInFloods)
{
    const auto tool =
        run("send", {&first, &second}, fields + QStringLiteral(" --replies 3 --timeout 60000"));
    EXPECT_EQ(first.receive(frame.size()), frame);
    EXPECT_EQ(second.receive(frame.size()), frame);
    for (const char* piece : {"noiseOKa", "O", "K", "b", "OKc"}) {
        first.answer(piece);
        eventually([] { return false; }, std::chrono::milliseconds(20));
    }
    second.answer(QByteArray("OKf").repeated(500));
    EXPECT_EQ(tool->exitCode(), 0) << tool->error().toStdString();
    for (const char* line : {"127.0.0.1 OK 61\n", "127.0.0.1 OK 62\n", "127.0.0.1 OK 63\n"}) {
        EXPECT_TRUE(tool->output().contains(line)) << line;
    }
    EXPECT_GE(tool->output().count("127.0.0.2 OK 66\n"), 3);
    const auto fewer =
        run("send", {&first}, fields + QStringLiteral(" --replies 3 --timeout 5000"));
    acknowledge(first, '1');
    EXPECT_EQ(fewer->exitCode(), 1);
    EXPECT_TRUE(fewer->error().contains(
        QStringLiteral("127.0.0.1 gave only 1 of 3 replies within 5000 ms")));
}

TEST_F(OsdTool, DoesNotWaitForAcknowledgementsWhenToldSo)
{
    const auto tool = run("send", {&first, &second}, fields + QStringLiteral(" --timeout 0"));
    EXPECT_EQ(tool->exitCode(), 0) << tool->error().toStdString();
    EXPECT_EQ(first.receive(frame.size()), frame);
    EXPECT_EQ(second.receive(frame.size()), frame);
    ToolProcess partly(
        QStringList{QStringLiteral("send"), first.link(), QStringLiteral("osd://127.0.0.3:9")} +
        words(fields + QStringLiteral(" --timeout 0")));
    EXPECT_EQ(first.receive(frame.size()), frame);
    EXPECT_EQ(partly.exitCode(), 1);
    EXPECT_TRUE(partly.error().startsWith(QStringLiteral("coremanage: 127.0.0.3 takes no")))
        << partly.error().toStdString();
}

TEST_F(OsdTool, EndsWithCtrlC)
{
    const auto tool = run("send", {&first}, fields + QStringLiteral(" --timeout 60000"));
    EXPECT_EQ(first.receive(frame.size()), frame);
    tool->interrupt();
    EXPECT_EQ(tool->exitCode(), 1);
    EXPECT_TRUE(tool->error().contains(QStringLiteral("interrupted before a reply came")));
}

TEST_F(OsdTool, ListensToSeveralAndNamesTheOneThatGoes)
{
    const auto tool = run("listen", {&first, &second}, {});
    ASSERT_TRUE(eventually([&] { return first.isConnected() && second.isConnected(); }));
    first.answer("OK1");
    EXPECT_TRUE(tool->says(QStringLiteral("127.0.0.1 OK 31\n")));
    second.answer("OK2");
    EXPECT_TRUE(tool->says(QStringLiteral("127.0.0.2 OK 32\n")));
    first.hangUp();
    EXPECT_TRUE(tool->says(QStringLiteral(" has hung up\n")));
    EXPECT_TRUE(tool->error().contains(first.link().mid(6) + QStringLiteral(" has hung up")))
        << tool->error().toStdString();
    second.answer("OK3");
    EXPECT_TRUE(tool->says(QStringLiteral("127.0.0.2 OK 33\n"))) << "the others go on";
    second.hangUp();
    EXPECT_EQ(tool->exitCode(), 1);
    EXPECT_TRUE(tool->error().contains(QStringLiteral(": no endpoint is left\n")));
    EXPECT_EQ(tool->error().count(QStringLiteral("has hung up")), 2);
    EXPECT_EQ(tool->lines().size(), 3);
}

TEST_F(OsdTool, ListensForSoMany)
{
    const auto tool = run("listen", {&first}, QStringLiteral("--count 5 --json"));
    ASSERT_TRUE(eventually([this] { return first.isConnected(); }));
    first.answer("OK1OK2OK3OK4OK5OK6");
    EXPECT_EQ(tool->exitCode(), 0) << tool->error().toStdString();
    ASSERT_EQ(tool->lines().size(), 5);
    int sum = 0;
    for (const QString& line : tool->lines()) { // hand-overs may overtake each other
        sum +=
            QJsonDocument::fromJson(line.toUtf8()).object().value(QStringLiteral("status")).toInt();
    }
    EXPECT_GE(sum, '1' + '2' + '3' + '4' + '5');
    const auto ended = run("listen", {&second}, {});
    ASSERT_TRUE(eventually([this] { return second.isConnected(); }));
    ended->interrupt();
    EXPECT_EQ(ended->exitCode(), 0);
}

TEST_F(OsdTool, AWholeWallAtOnce)
{
    constexpr int wallSize = 30;
    std::vector<std::unique_ptr<OsdPeer>> wall;
    std::vector<OsdPeer*> peers;
    for (int i = 0; i < wallSize; ++i) {
        wall.push_back(std::make_unique<OsdPeer>(
            QStringLiteral("127.0.1.%1").arg(i + 1).toLatin1().constData()));
        peers.push_back(wall.back().get());
    }
    const auto tool = run("send", peers, fields);
    for (OsdPeer* peer : peers) {
        acknowledge(*peer, '1');
    }
    EXPECT_EQ(tool->exitCode(), 0) << tool->error().toStdString();
    EXPECT_EQ(tool->lines().size(), 1 + wallSize);
}
