// SPDX-License-Identifier: MIT
// The processor time that the bridge takes for a command that comes from a broker and whose answer
// goes back there, against that of the command-line tool for a command of a file. The same device,
// in turns.
#include "eventually.h"
#include "netns.h"
#include "processstate.h"
#include "ratio.h"
#include "tests/bridge/bridgeprocess.h"
#include "tests/bridge/mqttclient.h"
#include "udpecho.h"

#include <sys/resource.h>

namespace
{

constexpr int many = 10000;
constexpr int rounds = 5;
constexpr int window = 50; // commands without an answer

void require(bool holds, const char* what)
{
    if (!holds) {
        std::fprintf(stderr, "bench_bridge: %s\n", what);
        std::exit(1);
    }
}

// Of all children that have ended.
double childrenSeconds()
{
    rusage used{};
    getrusage(RUSAGE_CHILDREN, &used);
    return static_cast<double>(used.ru_utime.tv_sec + used.ru_stime.tv_sec) +
           static_cast<double>(used.ru_utime.tv_usec + used.ru_stime.tv_usec) * 1e-6;
}

double secondsOfTool(const QString& link, const QString& file)
{
    const double before = childrenSeconds();
    QProcess tool;
    tool.setStandardOutputFile(QProcess::nullDevice());
    tool.start(COREMANAGE, {"send", link, "--file", file});
    require(tool.waitForFinished(-1) && tool.exitCode() == 0, "send --file failed");
    return childrenSeconds() - before;
}

QString commandFile(const QTemporaryDir& directory, int count)
{
    QFile file(directory.filePath(QString::number(count)));
    file.open(QIODevice::WriteOnly);
    file.write("cmd,dat1\n");
    for (int i = 0; i < count; ++i) {
        file.write("0x8c," + QByteArray::number(i & 0xff) + '\n');
    }
    return file.fileName();
}

void exchange(MqttClient& client, int round)
{
    const QString answers = QStringLiteral("answers");
    MqttClient::Options options;
    options.responseTopic = answers;
    for (int sent = 0, answered = 0; answered < many;) {
        while (sent < many && sent - answered < window) {
            options.correlation = QByteArray::number(round * many + sent);
            client.publish("site/pump/command",
                           R"({"cmd":140,"timeout_ms":30000,"dat1":)" +
                               QByteArray::number(sent & 0xff) + '}',
                           options);
            ++sent;
        }
        require(eventually([&] {
                    for (const MqttMessage& message : client.take()) {
                        answered += message.topic == answers ? 1 : 0;
                        require(message.payload.contains("\"ok\":true"), message.payload);
                    }
                    return answered == sent || sent - answered < window / 2;
                }),
                "an answer is missing");
    }
}

} // namespace

int main(int argc, char** argv)
{
    if (!netns::isolate()) {
        std::fprintf(stderr, "no network namespace of its own: port 5104 must be free\n");
    }
    const QCoreApplication application(argc, argv);
    const QTemporaryDir directory;
    qputenv("HOME", directory.path().toLocal8Bit()); // for the log
    const QString commands = commandFile(directory, many);
    const QString one = commandFile(directory, 1);
    const UdpEcho echo;
    const QString link = QStringLiteral("udp://127.0.0.1:%1").arg(echo.port);
    Broker::Setup setup;
    setup.more = "log_type error\n";
    Broker broker(setup);
    require(broker.start(), "no broker");
    std::vector<double> bridged;
    std::vector<double> plain;
    for (int round = 0; round < rounds; ++round) {
        plain.push_back((secondsOfTool(link, commands) - secondsOfTool(link, one)) / (many - 1));

        QJsonObject open = openLink("pump", link);
        open.insert("rate", 10000);
        open.insert("queue", 1000);
        BridgeProcess bridge(bridgeConfiguration(broker, {open}));
        MqttClient client(broker);
        require(client.connects() && client.subscribe("answers") &&
                    client.subscribe("site/pump/status"),
                "the broker lets nobody in");
        require(eventually([&client] {
                    return client.next("site/pump/status").json().value("status") == "online";
                }),
                "the bridge does not come up");
        const double before = processstate::cpuSeconds(bridge.id());
        exchange(client, round);
        bridged.push_back((processstate::cpuSeconds(bridge.id()) - before) / many);
        require(bridge.terminate() == 0, "the bridge failed");
    }
    constexpr double goal = 2;
    ratio::printTimes("bridge, processor time a command, to send", ratio::percentile(plain, 0.5),
                      ratio::percentile(bridged, 0.5), goal);
    return 0;
}
