// SPDX-License-Identifier: MIT
#include "bridgesite.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace
{

class Bridge : public BridgeTest
{
protected:
    // Whoever awaits something is there before the bridge: the broker has forgotten everything.
    void restartBroker()
    {
        bridge->tool().stop();
        ASSERT_TRUE(broker.start()) << qPrintable(broker.log());
        ASSERT_TRUE(client->connects());
        ASSERT_TRUE(client->subscribe("site/#"));
        ASSERT_TRUE(client->subscribe("answers"));
        bridge->tool().goOn();
    }
};

TEST_F(Bridge, KeepsTheAnswerForABrokerThatWasKilled)
{
    begin({openLink("pump", peer.link())});
    ask(R"({"cmd": 1, "timeout_ms": 60000})", "a");
    EXPECT_EQ(peer.command().size(), 19);
    broker.kill();
    EXPECT_TRUE(bridge->tool().says("broker: "));
    ASSERT_TRUE(client->disconnects());
    peer.send(replyText(1, 0));
    restartBroker();
    const MqttMessage answer = client->next("answers");
    EXPECT_EQ(answer.correlation, "a");
    EXPECT_TRUE(answer.json().value("ok").toBool());
    EXPECT_TRUE(comes("pump", "online"));
    command(R"({"cmd": 2})");
    EXPECT_EQ(peer.command().mid(6, 2), "02");
}

// The oldest go, and somebody is told.
TEST_F(Bridge, KeepsNoMoreThanItMayForABrokerThatIsGone)
{
    begin({openLink("pump", peer.link())}, {{"queue_kib", 64}});
    ASSERT_TRUE(comes("pump", "online"));
    broker.kill();
    ASSERT_TRUE(client->disconnects());
    EXPECT_TRUE(bridge->tool().says("broker: "));
    for (int i = 0; i < 1000; ++i) {
        peer.send(replyText(0x20, i % 256));
        if (i % 50 == 0) {
            ASSERT_TRUE(eventually([] { return waitingBytes(UdpPeer::linkPort) == 0; }));
        }
    }
    restartBroker();
    const QString said = next("bridge/error").value("error").toString();
    EXPECT_TRUE(said.endsWith(" messages that waited for the broker were dropped"))
        << qPrintable(said);
    EXPECT_GT(said.section(' ', 0, 0).toInt(), 500);
}

TEST_F(Bridge, SaysWhenItIsGoneWithoutAWord)
{
    begin({openLink("pump", peer.link())});
    ::kill(static_cast<pid_t>(bridge->id()), SIGKILL);
    EXPECT_TRUE(comes("bridge", "offline"));
    EXPECT_EQ(lastStatus.value("reason").toString(), "the bridge is gone without a word");
}

TEST_F(Bridge, FinishesWhatIsUnderWayBeforeItEnds)
{
    begin({openLink("pump", peer.link())});
    command(R"({"cmd": 1, "timeout_ms": 60000})");
    EXPECT_EQ(peer.command().size(), 19);
    command(R"({"cmd": 2})");
    command("{}");
    EXPECT_EQ(next("pump/error").value("code").toInt(), 2) << "so the one before waits";
    ::kill(static_cast<pid_t>(bridge->id()), SIGTERM);
    EXPECT_EQ(next("pump/error").value("error").toString(), "not sent: the bridge ends");
    EXPECT_EQ(next("pump/reply").value("error").toString(),
              peer.link() + ": the bridge ended before a reply came");
    EXPECT_EQ(bridge->tool().exitCode(), 0);
    EXPECT_TRUE(comes("pump", "offline"));
    EXPECT_EQ(lastStatus.value("reason").toString(), "the bridge has ended");
    EXPECT_TRUE(comes("bridge", "offline"));
    EXPECT_FALSE(peer.hasDatagram());
}

TEST_F(Bridge, EndsWithoutABroker)
{
    configuration = bridgeConfiguration(broker, {openLink("pump", peer.link())});
    configuration = withBroker(configuration, {{"port", 9}});
    BridgeProcess alone(configuration);
    EXPECT_TRUE(alone.tool().says("broker: "));
    EXPECT_EQ(alone.terminate(), 0);
}

TEST_F(Bridge, ComesBackFromWhoTakesItsName)
{
    begin({openLink("pump", peer.link())});
    {
        MqttClient::Access access;
        access.id = "bridge";
        MqttClient thief(broker, access);
        ASSERT_TRUE(thief.connects());
        EXPECT_TRUE(bridge->tool().says("broker: The connection was lost."));
    }
    // The thief may have come back in between: a command that the bridge has missed is repeated.
    EXPECT_TRUE(eventually([this] {
        for (const MqttMessage& message : client->take()) {
            if (message.topic == "site/bridge/status" || message.topic == "site/pump/error") {
                command(R"({"cmd": 1})");
            }
        }
        return peer.hasDatagram();
    }));
    EXPECT_EQ(peer.command().mid(6, 2), "01");
}

TEST_F(Bridge, SaysThatItsPasswordIsWrong)
{
    Broker::Setup setup;
    setup.passwords.insert("hall", "right");
    Broker strict(setup);
    ASSERT_TRUE(strict.start()) << qPrintable(strict.log());
    QTemporaryDir directory;
    QFile password(directory.filePath("password"));
    ASSERT_TRUE(password.open(QIODevice::WriteOnly));
    password.write("wrong\n");
    password.close();
    password.setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner);
    const QJsonObject whole =
        withBroker(bridgeConfiguration(strict, {openLink("pump", peer.link())}),
                   {{"user", "hall"}, {"password_file", password.fileName()}});
    BridgeProcess refused(whole);
    EXPECT_TRUE(refused.tool().says("broker: it refuses the bridge: Not authorized"));
    ASSERT_TRUE(password.open(QIODevice::WriteOnly));
    password.write("right\n");
    password.close();
    EXPECT_EQ(refused.terminate(), 0);
    BridgeProcess accepted(whole);
    EXPECT_TRUE(accepted.tool().says("broker: connected"));
    password.setPermissions(password.permissions() | QFileDevice::ReadOther);
    BridgeProcess careless(whole);
    EXPECT_EQ(careless.tool().exitCode(), 2);
    EXPECT_TRUE(careless.tool().says("broker.password_file: everybody may read or write"));
}

TEST_F(Bridge, TrustsNoBrokerWithAnotherAuthority)
{
    Authority authority;
    Authority stranger;
    Broker::Setup setup;
    setup.authority = &authority;
    Broker strict(setup);
    ASSERT_TRUE(strict.start()) << qPrintable(strict.log());
    const Authority::Papers papers = authority.issue("bridge");
    const auto configured = [&](const Authority& trusted) {
        return withBroker(bridgeConfiguration(strict, {openLink("pump", peer.link())}),
                          {{"tls", QJsonObject{{"ca", trusted.certificate()},
                                               {"certificate", papers.certificate},
                                               {"key", papers.key}}}});
    };
    BridgeProcess wary(configured(stranger));
    EXPECT_TRUE(wary.tool().says("certificate verify failed"));
    EXPECT_EQ(wary.terminate(), 0);
    BridgeProcess trusting(configured(authority));
    EXPECT_TRUE(trusting.tool().says("broker: connected"));
}

TEST_F(Bridge, OpensASerialLineAgainThatHasGone)
{
    QTemporaryDir directory;
    const QString line = "serial://" + directory.filePath("line");
    begin({openLink("pump", line)});
    EXPECT_TRUE(comes("pump", "offline"));
    EXPECT_TRUE(lastStatus.value("reason").toString().contains("there is no "));
    command(R"({"cmd": 1})");
    const QJsonObject error = next("pump/error");
    EXPECT_EQ(error.value("code").toInt(), 3);
    EXPECT_TRUE(error.value("error").toString().startsWith("not sent: offline: "));
    for (int i = 0; i < 2; ++i) {
        ToolProcess device({"simulate", line});
        EXPECT_TRUE(comes("pump", "online"));
        command(R"({"cmd": 2, "timeout_ms": 60000})");
        EXPECT_TRUE(next("pump/reply").value("ok").toBool());
        device.interrupt();
        EXPECT_EQ(device.exitCode(), 0);
        EXPECT_TRUE(comes("pump", "offline"));
    }
}

TEST_F(Bridge, ConnectsAgainToAnEndpointThatHasHungUp)
{
    begin({openLink("pump", "osd://127.1.0.3:10001")});
    for (int i = 0; i < 2; ++i) {
        ToolProcess endpoint({"simulate", "osd://127.1.0.3:10001"});
        EXPECT_TRUE(comes("pump", "online"));
        command(R"({"ch2": 7, "data": "", "timeout_ms": 60000})");
        const QJsonObject answer = next("pump/reply");
        EXPECT_TRUE(answer.value("ok").toBool());
        EXPECT_EQ(answer.value("replies").toArray().at(0).toObject().value("status").toInt(), 7);
        endpoint.interrupt();
        EXPECT_EQ(endpoint.exitCode(), 0);
        EXPECT_TRUE(comes("pump", "offline"));
        EXPECT_EQ(lastStatus.value("reason").toString(), "has hung up");
    }
}

TEST_F(Bridge, KeepsTryingAnEndpointThatIsOffForLong)
{
    begin({openLink("pump", "osd://127.1.0.3:10001")});
    EXPECT_TRUE(comes("pump", "offline"));
    std::this_thread::sleep_for(std::chrono::seconds(3)); // three tries at least, all refused
    const ToolProcess endpoint({"simulate", "osd://127.1.0.3:10001"});
    EXPECT_TRUE(comes("pump", "online"));
}

TEST_F(Bridge, WaitsForThePortThatUdpRepliesComeTo)
{
    auto taken = std::make_unique<QUdpSocket>();
    ASSERT_TRUE(taken->bind(QHostAddress::AnyIPv4, UdpPeer::linkPort));
    begin({openLink("pump", peer.link())});
    EXPECT_TRUE(comes("pump", "offline"));
    EXPECT_TRUE(lastStatus.value("reason").toString().contains("replies come to local port 5104"));
    taken.reset();
    EXPECT_TRUE(comes("pump", "online"));
}

// As a service manager hears it.
TEST_F(Bridge, TellsTheServiceManagerHowItIs)
{
    QTemporaryDir directory;
    const QByteArray path = directory.filePath("notify").toLocal8Bit();
    const int manager = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    qstrncpy(address.sun_path, path.constData(), sizeof address.sun_path);
    ASSERT_EQ(bind(manager, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    qputenv("NOTIFY_SOCKET", path);
    qputenv("WATCHDOG_USEC", "200000");
    QByteArrayList heard;
    const auto hears = [&](const QByteArray& line) {
        return eventually([&] {
            char bytes[256];
            for (ssize_t size = 0; (size = recv(manager, bytes, sizeof bytes, 0)) >= 0;) {
                heard << QByteArray(bytes, static_cast<int>(size));
            }
            return heard.removeAll(line) > 0;
        });
    };
    begin({openLink("pump", peer.link())});
    EXPECT_TRUE(hears("READY=1"));
    EXPECT_TRUE(hears("WATCHDOG=1"));
    EXPECT_TRUE(hears("WATCHDOG=1"));
    EXPECT_EQ(bridge->terminate(), 0);
    EXPECT_TRUE(hears("STOPPING=1"));
    close(manager);
}

} // namespace
