// SPDX-License-Identifier: MIT
// Many simulated devices, one bridge, one broker and one client that sends commands at a steady
// rate. Every command must be answered once, by its own device, and reach it once. With --kills the
// broker is killed meanwhile; then what counts is what the bridge has acknowledged, and what it has
// published.
#include "bridgeprocess.h"
#include "eventually.h"
#include "fleet.h"
#include "mqttclient.h"
#include "mqtttap.h"
#include "netns.h"
#include "processstate.h"

#include <QCommandLineParser>
#include <QStandardPaths>

#include <algorithm>
#include <cstdio>
#include <set>

#include <sys/resource.h>

namespace
{

using Clock = std::chrono::steady_clock;

constexpr int window = 4000; // commands without an answer, at most
const QString answerTopic = QStringLiteral("load/answers");

struct Plan {
    int devices = 0;
    int rate = 0; // commands a second
    int seconds = 0;
    int kills = 0;
    bool isMeasured = false; // the goals count, too
};

double millisecondsOf(Clock::duration duration)
{
    return std::chrono::duration<double, std::milli>(duration).count();
}

int wrong = 0;

void require(bool holds, const QString& what)
{
    constexpr int shown = 10;
    if (!holds && ++wrong <= shown) {
        std::printf("WRONG: %s\n", qPrintable(what));
    }
}

QJsonObject configuration(const Broker& broker, const Plan& plan)
{
    QJsonArray links;
    for (int i = 0; i < plan.devices; ++i) {
        QJsonObject link = openLink(QStringLiteral("d%1").arg(i), Fleet::address(i));
        link.insert("rate", 10000);
        link.insert("queue", 10000);
        links.append(link);
    }
    return bridgeConfiguration(broker, links);
}

class Load
{
public:
    explicit Load(const Plan& chosen);
    void run();

private:
    struct Sent {
        Clock::time_point at;
        int answers = 0;
    };

    bool begin();
    void reconnect();
    void send();
    void collect();
    void take(const MqttMessage& answer);
    void sendAll();
    bool isAcceptedFrom(int first) const;
    void awaitLastAccepted();
    void settle();
    void killWhenDue(double share);
    void checkEach();
    void checkAccepted();
    void checkDevices();
    void print() const;

    static Broker::Setup brokerSetup()
    {
        Broker::Setup setup;
        setup.more = "log_type error\nmax_inflight_messages 0\nmax_queued_messages 0\n";
        return setup;
    }

    const Plan plan;
    Fleet fleet;
    Broker broker{brokerSetup()};
    std::unique_ptr<MqttTap> tap;
    std::unique_ptr<BridgeProcess> bridge;
    std::unique_ptr<MqttClient> client;
    std::vector<Sent> sent;
    std::vector<double> latencies; // ms
    std::vector<long> resident;    // KiB, once a second
    Clock::time_point start;
    Clock::time_point end;
    int answered = 0;
    int killed = 0;
    int behindOutage = 0; // the first command behind the last one
    double cpu = 0;       // s, of the bridge
};

Load::Load(const Plan& chosen) : plan(chosen), fleet(chosen.devices) {}

bool Load::begin()
{
    require(fleet.isOpen(), "the devices' addresses are taken");
    require(broker.start(), "no broker: " + broker.log());
    if (wrong != 0) {
        return false;
    }
    QJsonObject reached = configuration(broker, plan);
    if (plan.kills > 0) {
        tap = std::make_unique<MqttTap>(broker);
        reached = withBroker(reached, {{"port", tap->port()}});
    }
    MqttClient watcher(broker);
    require(watcher.connects() && watcher.subscribe("site/+/status"), "the broker lets nobody in");
    bridge = std::make_unique<BridgeProcess>(reached);
    std::set<QString> online;
    const bool areOnline = eventually(
        [&] {
            for (const MqttMessage& message : watcher.take()) {
                if (message.json().value("status").toString() == "online") {
                    online.insert(message.topic);
                }
            }
            return online.size() == static_cast<std::size_t>(plan.devices) + 1; // and the bridge
        },
        std::chrono::minutes(2));
    require(areOnline,
            QStringLiteral("%1 online: %2").arg(online.size()).arg(bridge->tool().error()));
    return areOnline;
}

// A new client each time: it repeats nothing of what the one before had sent.
void Load::reconnect()
{
    client = std::make_unique<MqttClient>(broker);
    require(client->connects() && client->subscribe(answerTopic), "the broker lets nobody in");
}

void Load::send()
{
    const int number = static_cast<int>(sent.size());
    const int device = number % plan.devices;
    const int ofDevice = number / plan.devices;
    // A busy machine takes its time, and a second try would leave a second reply behind.
    const QByteArray command = R"({"cmd":16,"timeout_ms":60000,"dat1":)" +
                               QByteArray::number(ofDevice / 256) + R"(,"dat2":)" +
                               QByteArray::number(ofDevice % 256) + '}';
    MqttClient::Options options;
    options.responseTopic = answerTopic;
    options.correlation = QByteArray::number(number);
    sent.push_back({Clock::now(), 0});
    client->publish(QStringLiteral("site/d%1/command").arg(device), command, options);
}

void Load::take(const MqttMessage& answer)
{
    const int number = answer.correlation.toInt();
    if (number < 0 || number >= static_cast<int>(sent.size())) {
        require(false, "an answer to no command: " + QString::fromUtf8(answer.payload));
        return;
    }
    Sent& command = sent[static_cast<std::size_t>(number)];
    if (++command.answers > 1) {
        return;
    }
    ++answered;
    latencies.push_back(millisecondsOf(answer.arrival - command.at));
    const QJsonObject json = answer.json();
    const QJsonObject reply = json.value("replies").toArray().at(0).toObject();
    const int ofDevice = number / plan.devices;
    const bool fits =
        json.value("name").toString() == QStringLiteral("d%1").arg(number % plan.devices) &&
        reply.value("dat1").toInt() == ofDevice / 256 &&
        reply.value("dat2").toInt() == ofDevice % 256;
    require(fits || (plan.kills > 0 && !json.value("ok").toBool()),
            "to " + QString::number(number) + ": " + QString::fromUtf8(answer.payload));
}

void Load::collect()
{
    QCoreApplication::processEvents();
    for (const MqttMessage& answer : client->take()) {
        take(answer);
    }
    if (static_cast<double>(resident.size()) * 1000 < millisecondsOf(Clock::now() - start)) {
        resident.push_back(processstate::residentKiB(bridge->id()));
    }
}

// The bridge has come back from the outage before: a machine that stalls may delay it for long.
void Load::killWhenDue(double share)
{
    if (killed < plan.kills && share > (killed + 0.5) / plan.kills &&
        isAcceptedFrom(behindOutage)) {
        ++killed;
        broker.kill();
        require(client->disconnects(), "a broker that was killed is still there");
        collect();
        require(broker.start(), "the broker does not come back: " + broker.log());
        reconnect();
        behindOutage = static_cast<int>(sent.size());
    }
}

void Load::sendAll()
{
    const int all = plan.rate * plan.seconds;
    const auto goesOn = [&] { return static_cast<int>(sent.size()) < all || killed < plan.kills; };
    const double limit = plan.seconds + 90;
    double seconds = 0;
    // Without faults a command without an answer holds up the others in the end; with them it may
    // have been lost with the broker, and its own clock goes on.
    while (goesOn() && seconds < limit) {
        seconds = millisecondsOf(Clock::now() - start) / 1000;
        const int due = static_cast<int>(seconds * plan.rate);
        for (int burst = 0; goesOn() && static_cast<int>(sent.size()) < due && burst < 200;
             ++burst) {
            if (plan.kills == 0 && static_cast<int>(sent.size()) - answered >= window) {
                break;
            }
            send();
        }
        collect();
        killWhenDue(seconds / plan.seconds);
        std::this_thread::sleep_for(std::chrono::microseconds(500));
    }
}

// One of the commands from this one on.
bool Load::isAcceptedFrom(int first) const
{
    for (int number = first; number < static_cast<int>(sent.size()); ++number) {
        if (tap->commands().value(QByteArray::number(number)).acknowledged > 0) {
            return true;
        }
    }
    return false;
}

// What the broker lets through now comes behind everything that it has let through.
void Load::awaitLastAccepted()
{
    const auto first = static_cast<int>(sent.size());
    const auto isAccepted = [&] {
        collect();
        return isAcceptedFrom(first);
    };
    const auto limit = Clock::now() + std::chrono::seconds(60);
    bool isThrough = false;
    while (!isThrough && Clock::now() < limit) {
        send();
        isThrough = eventually(isAccepted, std::chrono::seconds(1));
    }
    require(isThrough, "nothing is accepted behind the last outage");
}

// Until nothing is missing, or nothing has come for long.
void Load::settle()
{
    if (tap) {
        awaitLastAccepted();
    }
    auto last = std::make_pair(Clock::now(), answered);
    const auto isMissing = [this] {
        if (!tap) {
            return answered < static_cast<int>(sent.size());
        }
        const auto& answers = tap->answers();
        for (auto it = tap->commands().begin(); it != tap->commands().end(); ++it) {
            if (it->acknowledged > 0 && answers.value(it.key()).acknowledged == 0) {
                return true;
            }
        }
        return false;
    };
    const auto quiet = [&last] { return Clock::now() - last.first; };
    const auto longEnough = std::chrono::seconds(tap ? 2 : 0); // what is on its way comes late
    while ((isMissing() || quiet() < longEnough) && quiet() < std::chrono::seconds(30)) {
        collect();
        if (answered != last.second) {
            last = {Clock::now(), answered};
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(plan.kills == 0 ? 1 : 100));
    }
    collect();
}

void Load::checkEach()
{
    const auto lost = std::count_if(sent.begin(), sent.end(),
                                    [](const Sent& command) { return command.answers == 0; });
    const auto doubled = std::count_if(sent.begin(), sent.end(),
                                       [](const Sent& command) { return command.answers > 1; });
    std::printf("answers       %d, %ld lost, %ld doubled\n", answered, static_cast<long>(lost),
                static_cast<long>(doubled));
    require(lost == 0 && doubled == 0, "commands are not answered once");
}

void Load::checkAccepted()
{
    int accepted = 0;
    int lost = 0;
    int doubled = 0;
    int notSent = 0;
    int repeated = 0;
    for (auto it = tap->commands().begin(); it != tap->commands().end(); ++it) {
        const MqttTap::Passage answer = tap->answers().value(it.key());
        accepted += it->acknowledged > 0 ? 1 : 0;
        lost += it->acknowledged > 0 && answer.acknowledged == 0 ? 1 : 0;
        doubled += answer.sent > 1 ? 1 : 0;
        repeated += answer.repeated > 0 ? 1 : 0;
        notSent +=
            answer.sent > 0 && !QJsonDocument::fromJson(answer.payload)["ok"].toBool() ? 1 : 0;
    }
    std::printf("killed        the broker %d times, %d connections\n", killed, tap->connections());
    std::printf(
        "accepted      %d of %d commands: %d not answered, %d answered twice, %d reported as "
        "not sent,\n              %d answers repeated to the next broker\n",
        accepted, static_cast<int>(sent.size()), lost, doubled, notSent, repeated);
    require(killed == plan.kills, "the bridge did not come back from an outage");
    // A broker that a busy machine takes long to start accepts little before it is killed once
    // more.
    require(accepted > 5 * plan.devices, "hardly any command was accepted");
    require(lost == 0 && doubled == 0, "accepted commands are not answered once");
}

void Load::checkDevices()
{
    const auto counts = fleet.commands();
    int tooMany = 0;
    for (std::size_t number = 0; number < sent.size(); ++number) {
        const std::size_t devices = counts.size();
        const int came = counts.at(number % devices).at(number / devices);
        tooMany += came > 1 ? 1 : 0;
    }
    require(tooMany == 0, QStringLiteral("%1 commands came to a device too often").arg(tooMany));
}

void Load::print() const
{
    const double seconds = millisecondsOf(end - start) / 1000;
    std::vector<double> sorted = latencies;
    std::sort(sorted.begin(), sorted.end());
    const auto share = [&sorted](double at) {
        return sorted.empty() ? 0.0
                              : sorted.at(static_cast<std::size_t>(
                                    at * static_cast<double>(sorted.size() - 1)));
    };
    const double perSecond = answered / seconds;
    std::printf("devices       %d, %d commands in %.1f s: %.0f a second\n", plan.devices,
                static_cast<int>(sent.size()), seconds, perSecond);
    std::printf("latency       median %.2f ms, p99 %.2f ms, greatest %.2f ms\n", share(0.5),
                share(0.99), share(1));
    std::printf("bridge        %.1f us of processor time a command; devices and client %.1f us\n",
                cpu / answered * 1e6, processstate::cpuSeconds() / answered * 1e6);
    const std::size_t warm = std::min<std::size_t>(60, resident.size() / 2);
    const long first = resident.at(warm);
    const long most = *std::max_element(resident.begin() + static_cast<long>(warm), resident.end());
    std::printf("memory        %ld KiB after %zu s, then at most %ld, %ld at the end\n", first,
                warm, most, resident.back());
    if (plan.isMeasured && plan.kills == 0) {
        require(perSecond >= plan.rate * 0.99, "slower than the rate that was asked for");
        require(share(0.99) <= 50, "p99 above 50 ms");
        require(most <= first + first / 20, "the bridge grows");
    }
}

void Load::run()
{
    if (!begin()) {
        return;
    }
    reconnect();
    const double before = processstate::cpuSeconds(bridge->id());
    start = Clock::now();
    sendAll();
    settle();
    end = Clock::now();
    cpu = processstate::cpuSeconds(bridge->id()) - before;
    print();
    plan.kills > 0 ? checkAccepted() : checkEach();
    checkDevices();
    const int code = bridge->terminate();
    require(code == 0,
            QStringLiteral("the bridge ended with %1: %2").arg(code).arg(bridge->tool().error()));
}

Plan planOf(const QCoreApplication& application)
{
    QCommandLineParser parser;
    parser.setApplicationDescription("Sends commands to many simulated devices through a bridge.");
    parser.addHelpOption();
    const auto number = [&parser](const char* name, const char* what, const char* otherwise) {
        parser.addOption(QCommandLineOption(QLatin1String(name), QLatin1String(what), "N",
                                            QLatin1String(otherwise)));
    };
    number("devices", "how many simulated devices", "200");
    number("rate", "commands a second", "500");
    number("seconds", "how long commands are sent", "3");
    number("kills", "how often the broker is killed meanwhile", "0");
    const QCommandLineOption goals("goals", "Fail, too, if the bridge is slow or grows.");
    parser.addOption(goals);
    parser.process(application);
    const auto value = [&parser](const char* name) {
        return std::max(0, parser.value(QLatin1String(name)).toInt());
    };
    return {std::max(1, value("devices")), value("rate"), value("seconds"), value("kills"),
            parser.isSet(goals)};
}

} // namespace

int main(int argc, char** argv)
{
    if (!netns::isolate()) {
        std::printf("skipped: the system gives no network namespace\n");
        return 77;
    }
    if (QStandardPaths::findExecutable("mosquitto_passwd").isEmpty()) {
        std::printf("skipped: mosquitto is missing\n");
        return 77;
    }
    rlimit files{};
    getrlimit(RLIMIT_NOFILE, &files);
    files.rlim_cur = files.rlim_max;
    setrlimit(RLIMIT_NOFILE, &files);
    const QCoreApplication application(argc, argv);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    const Plan plan = planOf(application);
    if (plan.rate * plan.seconds / plan.devices >= Fleet::commandsOfEach) {
        std::printf("too many commands for so few devices\n");
        return 2;
    }
    Load(plan).run();
    return wrong == 0 ? 0 : 1;
}
