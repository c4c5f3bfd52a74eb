// SPDX-License-Identifier: MIT
#include "eventually.h"
#include "netns.h"
#include "osdsimulator.h"

#include <gtest/gtest.h>

#include <QElapsedTimer>
#include <QHostAddress>
#include <QTcpSocket>

#include <cerrno>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

const QByteArray goodCommand = QByteArray::fromHex("21030504070 8090a");

struct Pair {
    explicit Pair(OsdSimulatorOptions options)
        : endpoint([&options] {
              options.port = 0;
              return options;
          }())
    {
        EXPECT_TRUE(endpoint.start()) << endpoint.error().toStdString();
        client.connectToHost(QHostAddress(QHostAddress::LocalHost), endpoint.port());
    }

    bool reads(const QByteArray& expected)
    {
        return eventually([&] {
            read += client.readAll();
            return read == expected;
        });
    }

    OsdSimulator endpoint;
    QTcpSocket client;
    QByteArray read;
};

OsdSimulatorOptions fixedLength(const Faults& faults = {})
{
    OsdSimulatorOptions options;
    options.dataLength = 0;
    options.faults = faults;
    return options;
}

constexpr Faults::Setting always{1.0, 0, 0};

} // namespace

TEST(OsdSimulator, AnswersAGoodCommandOnly)
{
    Pair pair({});
    pair.client.write(goodCommand);
    ASSERT_TRUE(pair.reads("OK!"));
    pair.client.write("tooshrt");
    ASSERT_TRUE(eventually([&] { return pair.endpoint.noise() == 7; }));
    pair.client.write(goodCommand.left(6) + "any data" + goodCommand.right(2));
    ASSERT_TRUE(pair.reads("OK!OK!"));
    EXPECT_EQ(pair.endpoint.good(), 2);
    EXPECT_EQ(pair.endpoint.answers(), 2);
}

TEST(OsdSimulator, CutsGluedAndSplitCommandsOfKnownLength)
{
    Pair pair(fixedLength());
    pair.client.write(goodCommand + goodCommand + goodCommand.left(5));
    ASSERT_TRUE(pair.reads("OK!OK!"));
    pair.client.write(goodCommand.mid(5));
    ASSERT_TRUE(pair.reads("OK!OK!OK!"));
}

TEST(OsdSimulator, SplitsGarblesFloodsAndIsLate)
{
    Faults faults;
    faults.set(Fault::Split, {1.0, 0, 20});
    faults.set(Fault::Delay, {1.0, 0, 50});
    faults.set(Fault::Garbage, {0, 1, 16});
    faults.set(Fault::Flood, {0, 2, 3});
    Pair pair(fixedLength(faults));
    QElapsedTimer waited;
    waited.start();
    pair.client.write(goodCommand);
    ASSERT_TRUE(eventually([&] { return pair.client.bytesAvailable() == qint64{3} * (16 + 3); }));
    EXPECT_GE(waited.elapsed(), 3 * (50 + 3 * 20));
    const QByteArray first = pair.client.readAll();
    EXPECT_TRUE(first.endsWith("OK!"));
    EXPECT_EQ(first.count('O'), 3);
    EXPECT_FALSE(first.left(16).contains('O'));
    pair.client.write(goodCommand + goodCommand);
    ASSERT_TRUE(pair.reads("OK!OK!OK!OK!"));
}

TEST(OsdSimulator, ASplitAnswerIsWholeBeforeTheNextOneBegins)
{
    Faults faults;
    faults.set(Fault::Split, {0, 2, 20});
    Pair pair(fixedLength(faults));
    pair.client.write(goodCommand + "?" + goodCommand.mid(1) + "." + goodCommand.mid(1));
    ASSERT_TRUE(pair.reads("OK.OK!OK?")) << pair.read.constData();
}

TEST(OsdSimulator, ADelayedAnswerDoesNotHoldUpTheNextOne)
{
    Faults faults;
    faults.set(Fault::Delay, {0, 1, 200});
    Pair pair(fixedLength(faults));
    pair.client.write(goodCommand + "?" + goodCommand.mid(1));
    ASSERT_TRUE(pair.reads("OK?OK!")) << pair.read.constData();
}

TEST(OsdSimulator, RefusesAndServesAgain)
{
    Faults faults;
    faults.set(Fault::Refuse, always);
    Pair pair(fixedLength(faults));
    ASSERT_TRUE(
        eventually([&] { return pair.client.error() == QTcpSocket::ConnectionRefusedError; }));
    pair.endpoint.setFaults({});
    pair.client.connectToHost(QHostAddress(QHostAddress::LocalHost), pair.endpoint.port());
    ASSERT_TRUE(eventually([&] { return pair.endpoint.accepted() == 1; }));
    pair.endpoint.setFaults(faults);
    QTcpSocket second;
    second.connectToHost(QHostAddress(QHostAddress::LocalHost), pair.endpoint.port());
    ASSERT_TRUE(eventually([&] { return second.error() == QTcpSocket::ConnectionRefusedError; }));
    EXPECT_EQ(pair.client.state(), QTcpSocket::ConnectedState);
}

TEST(OsdSimulator, NeverReadsUntilItDoes)
{
    Faults faults;
    faults.set(Fault::NeverRead, always);
    OsdSimulatorOptions options;
    options.faults = faults;
    netns::limitBuffers();
    Pair pair(options);
    ASSERT_TRUE(eventually([&] { return pair.endpoint.accepted() == 1; }));
    const QByteArray much(4 * 1024 * 1024, 'm');
    pair.client.write(much);
    EXPECT_FALSE(eventually([&] { return pair.client.bytesToWrite() == 0; },
                            std::chrono::milliseconds(200)));
    EXPECT_EQ(pair.endpoint.received().size(), 0);
    pair.endpoint.setFaults({});
    EXPECT_TRUE(eventually([&] { return pair.endpoint.receivedBytes() == much.size(); }));
    EXPECT_TRUE(pair.endpoint.received() == much);
}

TEST(OsdSimulator, HangsUpAfterBytesOrInsteadOfAnswering)
{
    Faults faults;
    faults.set(Fault::CloseAfter, {0, 1, 9});
    Pair pair(fixedLength(faults));
    pair.client.write(goodCommand);
    ASSERT_TRUE(pair.reads("OK!"));
    pair.client.write("x");
    ASSERT_TRUE(
        eventually([&] { return pair.client.error() == QTcpSocket::RemoteHostClosedError; }));
}

TEST(OsdSimulator, ResetsInsteadOfAnswering)
{
    Faults faults;
    faults.set(Fault::Reset, always);
    OsdSimulatorOptions options = fixedLength(faults);
    options.port = 0;
    OsdSimulator endpoint(options);
    ASSERT_TRUE(endpoint.start());
    const int client = socket(AF_INET, SOCK_STREAM, 0);
    const timeval limit{30, 0};
    setsockopt(client, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(endpoint.port());
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(connect(client, reinterpret_cast<const sockaddr*>(&to), sizeof to), 0);
    ASSERT_EQ(send(client, goodCommand.constData(), 8, 0), 8);
    char byte = 0;
    EXPECT_EQ(recv(client, &byte, 1, 0), -1);
    EXPECT_EQ(errno, ECONNRESET);
    EXPECT_EQ(endpoint.answers(), 0);
    close(client);
}

TEST(OsdSimulator, RepeatsItselfFromASeed)
{
    QByteArray runs[2];
    for (QByteArray& run : runs) {
        Faults faults;
        faults.set(Fault::Drop, {0.5, 0, 0});
        Pair pair(fixedLength(faults));
        QByteArray commands;
        for (char i = 0; i < 40; ++i) {
            commands += QByteArray(1, char('0' + i)) + goodCommand.mid(1);
        }
        pair.client.write(commands);
        ASSERT_TRUE(eventually([&] { return pair.endpoint.good() == 40; }));
        ASSERT_TRUE(eventually([&] {
            run += pair.client.readAll();
            return run.size() == 3 * pair.endpoint.answers();
        }));
    }
    EXPECT_EQ(runs[0], runs[1]);
    EXPECT_GT(runs[0].size(), 0);
    EXPECT_LT(runs[0].size(), 120);
}

TEST(OsdSimulator, SaysWhyItCannotServe)
{
    OsdSimulatorOptions options;
    options.address = QStringLiteral("203.0.113.7");
    OsdSimulator foreign(options);
    EXPECT_FALSE(foreign.start());
    EXPECT_TRUE(foreign.error().contains(QStringLiteral("does not have that address")));
    options.address = QStringLiteral("127.0.0.1");
    options.port = 0;
    OsdSimulator first(options);
    ASSERT_TRUE(first.start());
    options.port = first.port();
    OsdSimulator second(options);
    EXPECT_FALSE(second.start());
    EXPECT_TRUE(second.error().contains(QStringLiteral("is taken")));
}
