// SPDX-License-Identifier: MIT
// What becomes of the bridge when the broker is another one, goes away, is slow, or does not let it
// in.
#include "bridgeprocess.h"
#include "brokertest.h"
#include "eventually.h"
#include "fleet.h"
#include "mqttclient.h"
#include "netns.h"
#include "networkcable.h"
#include "tests/transports/udppeer.h"

#include <QFileInfo>
#include <QRegularExpression>

namespace
{

// A bridge with one link, "pump", to a simulated device or to one that the test plays.
class BridgeAndBroker : public BrokerTest
{
protected:
    void begin(const Broker::Setup& setup = Broker::Setup())
    {
        broker = std::make_unique<Broker>(setup);
        ASSERT_TRUE(broker->start()) << qPrintable(broker->log());
        ASSERT_TRUE(fleet.isOpen());
        configuration = bridgeConfiguration(*broker, {openLink("pump", Fleet::address(0))});
    }

    void reach(const UdpPeer& device)
    {
        configuration.insert("links", QJsonArray{openLink("pump", udpAddress(device))});
    }

    static QString udpAddress(const UdpPeer& device)
    {
        return QStringLiteral("udp://127.0.0.1:%1").arg(device.port());
    }

    void startBridge() { bridge = std::make_unique<BridgeProcess>(configuration); }

    bool says(const char* text) { return bridge->tool().says(QLatin1String(text)); }

    // A client that sees what the bridge publishes, with the rights of its own if it needs some.
    std::unique_ptr<MqttClient> watch(const MqttClient::Access& access = MqttClient::Access())
    {
        auto client = std::make_unique<MqttClient>(*broker, access);
        EXPECT_TRUE(client->connects()) << qPrintable(broker->log());
        EXPECT_TRUE(client->subscribe("site/#"));
        EXPECT_TRUE(client->subscribe("answers/#"));
        return client;
    }

    // The broker is back, and somebody watches before the bridge finds it.
    std::unique_ptr<MqttClient> watchNewBroker()
    {
        bridge->tool().stop();
        EXPECT_TRUE(broker->start()) << qPrintable(broker->log());
        auto client = watch();
        bridge->tool().goOn();
        return client;
    }

    static bool isOnline(MqttClient& client, const QString& name = "pump")
    {
        return eventually([&] {
            const MqttMessage message = client.next("site/" + name + "/status");
            return message.topic.isEmpty() || message.json().value("status") == "online";
        });
    }

    // What comes of a command, to a topic of its own; empty if nothing does.
    static QJsonObject ask(MqttClient& client, int number)
    {
        MqttClient::Options options;
        options.responseTopic = QStringLiteral("answers/%1").arg(number);
        options.correlation = QByteArray::number(number);
        client.publish("site/pump/command",
                       R"({"cmd":16,"timeout_ms":30000,"dat1":)" + QByteArray::number(number) + "}",
                       options);
        const MqttMessage answer = client.next(options.responseTopic);
        EXPECT_EQ(answer.correlation, options.correlation);
        return answer.json();
    }

    static void expectAnswer(MqttClient& client, int number)
    {
        const QJsonObject answer = ask(client, number);
        EXPECT_TRUE(answer.value("ok").toBool()) << QJsonDocument(answer).toJson().constData();
        EXPECT_EQ(answer.value("replies").toArray().at(0).toObject().value("dat1"), number);
    }

    // It goes on whatever the broker does, and ends when it is told to.
    void expectEnd()
    {
        EXPECT_FALSE(bridge->tool().hasEnded()) << qPrintable(bridge->tool().error());
        EXPECT_EQ(bridge->terminate(), 0) << qPrintable(bridge->tool().error());
    }

    // The DAT1s of what devices sent without being asked.
    static int unawaited(const MqttMessage& message)
    {
        const QJsonObject json = message.json();
        EXPECT_TRUE(json.value("unawaited").toBool()) << message.payload.constData();
        return json.value("replies").toArray().at(0).toObject().value("dat1").toInt();
    }

    Fleet fleet{1};
    std::unique_ptr<Broker> broker;
    QJsonObject configuration;
    std::unique_ptr<BridgeProcess> bridge;
};

TEST_F(BridgeAndBroker, TellsABrokerThatWasKilledOfItself)
{
    begin();
    startBridge();
    {
        const auto before = watch();
        ASSERT_TRUE(isOnline(*before));
        ASSERT_TRUE(isOnline(*before, "bridge"));
        expectAnswer(*before, 1);
    }
    broker->kill();
    ASSERT_TRUE(broker->start()); // it has forgotten everything
    const auto client = watch();
    EXPECT_TRUE(isOnline(*client));
    EXPECT_TRUE(isOnline(*client, "bridge"));
    expectAnswer(*client, 2);
    EXPECT_EQ(fleet.commands().at(0).at(256), 1);
    EXPECT_EQ(fleet.commands().at(0).at(512), 1);
    expectEnd();
}

TEST_F(BridgeAndBroker, LeavesAloneWhatABrokerKeptForIt)
{
    Broker::Setup setup;
    setup.keeps = true;
    begin(setup);
    startBridge();
    {
        const auto before = watch();
        ASSERT_TRUE(isOnline(*before));
        expectAnswer(*before, 1);
    }
    bridge->tool().stop();
    broker->kill();
    ASSERT_TRUE(broker->start()) << qPrintable(broker->log());
    const auto client = watch();
    EXPECT_TRUE(isOnline(*client)); // retained
    MqttClient::Options options;
    options.responseTopic = "answers/late";
    ASSERT_TRUE(client->publish("site/pump/command", R"({"cmd":16,"dat1":2})", options));
    ASSERT_TRUE(client->isAcknowledged());
    bridge->tool().goOn();
    const MqttMessage refusal = client->next("answers/late");
    EXPECT_FALSE(refusal.json().value("ok").toBool(true)) << refusal.payload.constData();
    expectAnswer(*client, 3);
    EXPECT_EQ(fleet.commands().at(0).at(512), 0);
    EXPECT_EQ(fleet.commands().at(0).at(768), 1);
    expectEnd();
}

TEST_F(BridgeAndBroker, KeepsRepliesWhileTheBrokerIsAway)
{
    UdpPeer device;
    begin();
    reach(device);
    startBridge();
    ASSERT_TRUE(isOnline(*watch()));
    broker->kill();
    ASSERT_TRUE(says("refused")); // the next attempt
    for (int i = 0; i < 200; ++i) {
        device.send(replyText(0x10, i));
    }
    const auto client = watchNewBroker();
    for (int i = 0; i < 200; ++i) {
        ASSERT_EQ(unawaited(client->next("site/pump/reply")), i);
    }
    expectEnd();
}

TEST_F(BridgeAndBroker, KeepsTheNewestRepliesIfThereAreTooMany)
{
    UdpPeer device;
    begin();
    reach(device);
    configuration.insert("queue_kib", 64);
    configuration.insert("counters_s", 1);
    startBridge();
    ASSERT_TRUE(isOnline(*watch()));
    broker->kill();
    ASSERT_TRUE(says("refused"));
    for (int i = 0; i < 2000; ++i) {
        device.send(replyText(0x10, i / 100));
        if (i % 100 == 99) { // no more at once than a socket holds
            ASSERT_TRUE(eventually([] { return waitingBytes(UdpPeer::linkPort) == 0; }));
        }
    }
    const auto client = watchNewBroker();
    const MqttMessage error = client->next("site/bridge/error");
    EXPECT_TRUE(error.json().value("error").toString().contains("dropped"))
        << error.payload.constData();
    int last = unawaited(client->next("site/pump/reply"));
    EXPECT_GT(last, 0); // the oldest are gone
    while (last < 19) {
        const MqttMessage reply = client->next("site/pump/reply");
        ASSERT_FALSE(reply.topic.isEmpty());
        ASSERT_GE(unawaited(reply), last);
        last = unawaited(reply);
    }
    EXPECT_TRUE(eventually([&client] {
        return client->next("site/bridge/counters").json().value("dropped").toInt() > 0;
    }));
    expectEnd();
}

TEST_F(BridgeAndBroker, WaitsForABrokerThatIsSlow)
{
    UdpPeer device;
    begin();
    reach(device);
    startBridge();
    const auto client = watch();
    ASSERT_TRUE(isOnline(*client));
    ::kill(static_cast<pid_t>(broker->id()), SIGSTOP);
    for (int i = 0; i < 200; ++i) {
        device.send(replyText(0x10, i));
    }
    ::kill(static_cast<pid_t>(broker->id()), SIGCONT);
    for (int i = 0; i < 200; ++i) {
        ASSERT_EQ(unawaited(client->next("site/pump/reply")), i);
    }
    expectEnd();
}

TEST_F(BridgeAndBroker, ComesBackWhenTheNetworkIsWholeAgain)
{
    if (!netns::isolated()) {
        GTEST_SKIP() << "a network namespace of its own is missing";
    }
    const NetworkCable cable;
    ASSERT_TRUE(cable.exists());
    ASSERT_TRUE(netns::run("ip addr add 10.9.0.1/24 dev host0"));
    ASSERT_TRUE(cable.runOnDevice("ip addr add 10.9.0.2/24 dev device0"));
    ASSERT_TRUE(cable.runOnDevice("ip link set lo up"));
    ASSERT_TRUE(cable.plugIn());
    UdpPeer device;
    Broker::Setup setup;
    setup.address = "10.9.0.2";
    setup.command = words(QString::fromLatin1(cable.onDevice()));
    begin(setup);
    reach(device);
    configuration = withBroker(configuration, {{"keep_alive_s", 5}});
    startBridge();
    const auto client = watch();
    ASSERT_TRUE(isOnline(*client));
    ASSERT_TRUE(says("connected to"));
    ASSERT_TRUE(netns::run("ip link set host0 down"));
    ASSERT_TRUE(eventually([&] { // it hears nothing any more
        return says("broker: ") && bridge->tool().error().count("broker: ") > 1;
    }));
    for (int i = 0; i < 20; ++i) {
        device.send(replyText(0x10, i));
    }
    ASSERT_TRUE(cable.plugIn());
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(unawaited(client->next("site/pump/reply")), i);
    }
    expectEnd();
}

TEST_F(BridgeAndBroker, TakesItsClientIdBack)
{
    begin();
    startBridge();
    ASSERT_TRUE(isOnline(*watch()));
    {
        MqttClient::Access access;
        access.id = "bridge";
        const MqttClient other(*broker, access);
        EXPECT_TRUE(other.connects());
        EXPECT_TRUE(eventually([this] {
            return broker->log().contains("bridge already connected");
        })) << qPrintable(broker->log());
    }
    const auto client = watch();
    EXPECT_TRUE(isOnline(*client, "bridge"));
    expectAnswer(*client, 1);
    expectEnd();
}

TEST_F(BridgeAndBroker, ComesInWithItsCertificate)
{
    const Authority authority;
    const Authority other;
    Broker::Setup setup;
    setup.authority = &authority;
    begin(setup);
    const auto trust = [this](const Authority& brokers, const Authority& own) {
        const Authority::Papers papers = own.issue("bridge");
        const QJsonObject tls{{"ca", brokers.certificate()},
                              {"certificate", papers.certificate},
                              {"key", papers.key}};
        configuration = withBroker(configuration, {{"tls", tls}});
        startBridge();
    };
    trust(other, authority); // the broker is a stranger
    EXPECT_TRUE(says("certificate verify failed")) << qPrintable(bridge->tool().error());
    expectEnd();
    trust(authority, other); // the bridge is
    EXPECT_TRUE(says("broker: ")) << qPrintable(bridge->tool().error());
    EXPECT_FALSE(bridge->tool().error().contains("connected to"));
    expectEnd();
    trust(authority, authority);
    MqttClient::Access anna;
    anna.authority = authority.certificate();
    anna.papers = authority.issue("anna");
    const auto client = watch(anna);
    EXPECT_TRUE(isOnline(*client)) << qPrintable(bridge->tool().error());
    expectAnswer(*client, 1);
    expectEnd();
}

// The rights that the documents name are enough for the bridge, and for whoever commands it.
TEST_F(BridgeAndBroker, NeedsTheRightsThatAreDocumented)
{
    QFile page(BRIDGE_PAGE);
    ASSERT_TRUE(page.open(QIODevice::ReadOnly));
    const QRegularExpression fenced("```text\n(user .*?)```",
                                    QRegularExpression::DotMatchesEverythingOption);
    const QRegularExpressionMatch rights = fenced.match(QString::fromUtf8(page.readAll()));
    ASSERT_TRUE(rights.hasMatch());
    Broker::Setup setup;
    setup.passwords = {{"hall-3", "secret"}, {"anna", "word"}};
    setup.access = rights.captured(1).toUtf8();
    begin(setup);
    const QTemporaryDir directory;
    QFile password(directory.filePath("password"));
    ASSERT_TRUE(password.open(QIODevice::WriteOnly));
    password.write("secret");
    password.close();
    ASSERT_TRUE(password.setPermissions(QFile::ReadOwner));
    configuration = withBroker(
        configuration,
        {{"client_id", "hall-3"}, {"user", "hall-3"}, {"password_file", password.fileName()}});
    configuration.insert("counters_s", 1);
    startBridge();
    MqttClient::Access anna;
    anna.user = "anna";
    anna.password = "word";
    const auto client = watch(anna);
    EXPECT_TRUE(isOnline(*client));
    EXPECT_TRUE(isOnline(*client, "hall-3"));
    expectAnswer(*client, 1);
    EXPECT_FALSE(client->next("site/pump/counters").topic.isEmpty());
    ASSERT_TRUE(client->publish("site/pump/command", "nonsense"));
    EXPECT_FALSE(client->next("site/pump/error").topic.isEmpty());
    ASSERT_TRUE(client->publish("site/pump/command", R"({"cmd":17,"timeout_ms":30000})"));
    EXPECT_FALSE(client->next("site/pump/reply").topic.isEmpty());
    EXPECT_FALSE(broker->log().contains("Denied")) << qPrintable(broker->log());
    // The bridge reads what it sends to itself when it comes back.
    broker->kill();
    ASSERT_TRUE(broker->start());
    EXPECT_TRUE(isOnline(*client));
    expectAnswer(*client, 2);
    EXPECT_FALSE(broker->log().contains("Denied")) << qPrintable(broker->log());
    expectEnd();
}

TEST_F(BrokerTest, IsShownWithTheBridgeByTheDemo)
{
    if (QStandardPaths::findExecutable("mosquitto_rr").isEmpty()) {
        GTEST_SKIP() << "mosquitto_rr is missing";
    }
    QProcess demo;
    demo.setProcessChannelMode(QProcess::MergedChannels);
    demo.start(BRIDGE_DEMO, {QFileInfo(COREMANAGE_BRIDGE).path()});
    ASSERT_TRUE(demo.waitForFinished(100'000));
    const QByteArray said = demo.readAll();
    EXPECT_EQ(demo.exitCode(), 0) << said.constData();
    EXPECT_TRUE(said.contains("\"ok\":true")) << said.constData();
    EXPECT_TRUE(said.contains("\"ok\":false")) << said.constData();
    EXPECT_GE(said.count("CMD 8b"), 1) << said.constData(); // it may be tried again
    EXPECT_EQ(said.count("CMD 01"), 0) << said.constData();
    EXPECT_EQ(said.count("\"status\":\"offline\""), 2) << said.constData();
}

} // namespace
