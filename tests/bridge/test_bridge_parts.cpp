// SPDX-License-Identifier: MIT
#include "commandmemory.h"
#include "deadlines.h"
#include "retrypause.h"
#include "tests/tools/toolprocess.h"

#include "eventually.h"

#include <gtest/gtest.h>

#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>

namespace
{

using std::chrono::milliseconds;
using std::chrono::seconds;

TEST(CommandMemory, KnowsACommandByAllThatItSays)
{
    CommandMemory memory(seconds(3600));
    EXPECT_FALSE(memory.hasCome("a", "b", "c", "d"));
    EXPECT_TRUE(memory.hasCome("a", "b", "c", "d"));
    EXPECT_FALSE(memory.hasCome("ab", "", "c", "d"));
    EXPECT_FALSE(memory.hasCome("a", "b", "cd", ""));
    EXPECT_FALSE(memory.hasCome("a", "b", "c", "e"));
    EXPECT_TRUE(memory.hasCome("a", "b", "c", "d"));
}

TEST(CommandMemory, ForgetsTheOldestOfTooMany)
{
    constexpr int most = 65536;
    CommandMemory memory(seconds(3600));
    for (int i = 0; i < most + 1; ++i) {
        EXPECT_FALSE(memory.hasCome("a", "b", QByteArray::number(i), "d"));
    }
    EXPECT_TRUE(memory.hasCome("a", "b", QByteArray::number(most), "d"));
    EXPECT_FALSE(memory.hasCome("a", "b", "0", "d"));
}

TEST(CommandMemory, ForgetsEverythingAtOnceIfItIsToldTo)
{
    CommandMemory memory(seconds(0));
    EXPECT_FALSE(memory.hasCome("a", "b", "c", "d"));
    EXPECT_FALSE(memory.hasCome("a", "b", "c", "d"));
}

TEST(RetryPause, GrowsToABoundAndVaries)
{
    RetryPause pause;
    RetryPause other;
    bool differs = false;
    for (int full = 250; full < 100'000; full *= 2) {
        const int most = std::min(full, 30'000);
        const milliseconds next = pause.next();
        EXPECT_GE(next.count(), most / 2);
        EXPECT_LE(next.count(), most);
        differs = differs || next != other.next();
    }
    EXPECT_TRUE(differs);
    pause.succeeded(); // a moment ago: that was no success
    EXPECT_GE(pause.next().count(), 15'000);
}

TEST(Deadlines, ComeInTheirOrderAndOnlyIfTheyStand)
{
    Deadlines deadlines(4);
    std::vector<std::size_t> came;
    QObject::connect(&deadlines, &Deadlines::expired, &deadlines,
                     [&](std::size_t thing) { came.push_back(thing); });
    deadlines.set(0, 60'000);
    deadlines.set(1, 5'000); // so much later that the next is earlier wherever this stops
    deadlines.set(2, 10);
    deadlines.set(3, 20);
    deadlines.clear(3);
    deadlines.set(0, 5'100);
    EXPECT_TRUE(eventually([&] { return came.size() == 3; }));
    EXPECT_EQ(came, (std::vector<std::size_t>{2, 1, 0}));
}

TEST(Deadlines, AreNeverEarly)
{
    constexpr int rounds = 20;
    constexpr milliseconds wait{10};
    Deadlines deadlines(1);
    int came = 0;
    QElapsedTimer since;
    QObject::connect(&deadlines, &Deadlines::expired, &deadlines, [&](std::size_t thing) {
        EXPECT_TRUE(came == 0 || since.nsecsElapsed() >= std::chrono::nanoseconds(wait).count())
            << came;
        if (++came < rounds) {
            since.start();
            deadlines.set(thing, wait.count());
            std::this_thread::sleep_for(std::chrono::microseconds(900)); // part of a millisecond
        }
    });
    deadlines.set(0, 1);
    EXPECT_TRUE(eventually([&] { return came == rounds; }));
}

struct Wrong {
    const char* text;
    const char* said;

    friend void PrintTo(const Wrong& wrong, std::ostream* stream) { *stream << wrong.said; }
};

class Configuration : public ::testing::TestWithParam<Wrong>
{
};

TEST_P(Configuration, SaysWhatIsWrongAndWhere)
{
    QTemporaryDir directory;
    QFile file(directory.filePath("bridge.json"));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(QByteArray(GetParam().text)
                   .replace("BROKER", R"("broker": {"host": "h", "client_id": "b"})"));
    file.close();
    for (const QStringList& program :
         {QStringList{QStringLiteral(COREMANAGE_BRIDGE)}, QStringList{builtTool(), "bridge"}}) {
        const ToolRun run({"--check", file.fileName()}, {}, program);
        EXPECT_EQ(run.code, *GetParam().said == '\0' ? 0 : 2) << qPrintable(run.error);
        EXPECT_TRUE(run.error.contains(QLatin1String(GetParam().said))) << qPrintable(run.error);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Bridge, Configuration,
    ::testing::Values(
        Wrong{R"({BROKER, "links": [{"name": "a", "address": "udp://10.0.0.1"}]})", ""},
        Wrong{"{\n  \"broker\": 1,,\n}", "bridge.json: line 2, column "},
        Wrong{R"({BROKER})", "\"links\" is missing"},
        Wrong{R"({BROKER, "links": []})", "links: invalid value"},
        Wrong{R"({"broker": {"host": "h"}, "links": []})", "broker: \"client_id\" is missing"},
        Wrong{R"({"broker": {"host": "h", "client_id": "b", "port": 0}, "links": []})",
              "broker.port: invalid value \"0\" (expected 1 to 65535)"},
        Wrong{R"({BROKER, "prefix": "a/+", "links": [{"name": "a", "address": "udp://10.0.0.1"}]})",
              "prefix: invalid value \"a/+\""},
        Wrong{R"({BROKER, "links": [{"name": "a/b", "address": "udp://10.0.0.1"}]})",
              "links[0].name: invalid value \"a/b\""},
        Wrong{R"({BROKER, "links": [{"name": "a", "address": "udp://host"}]})",
              "links[0].address: host of udp://host: invalid value"},
        Wrong{
            R"({BROKER, "links": [{"name": "a", "address": "udp://10.0.0.1", "allow": ["1/300"]}]})",
            "links[0].allow[0]: invalid value \"300\" (expected 0 to 255)"},
        Wrong{R"({BROKER, "links": [{"name": "a", "address": "udp://10.0.0.1", "allow": "some"}]})",
              "links[0].allow: invalid value \"some\""},
        Wrong{R"({BROKER, "links": [{"name": "a", "address": "osd://10.0.0.1", "allow": ["1"]}]})",
              "links[0].allow: commands of osd:// have no CMD"},
        Wrong{R"({BROKER, "links": [{"name": "b", "address": "udp://10.0.0.1"}]})",
              "links[0]: the name \"b\" is that of broker.client_id"},
        Wrong{
            R"({BROKER, "links": [{"name": "a", "address": "udp://10.0.0.1"}, )"
            R"({"name": "c", "address": "udp://10.0.0.1:2000"}]})",
            "links[1]: the device of udp://10.0.0.1:2000, whatever its port, is that of links[0]"},
        Wrong{R"({"broker": {"host": "h", "client_id": "b", "password_file": "bridge.json"}, )"
              R"("links": [{"name": "a", "address": "udp://10.0.0.1"}]})",
              "broker: \"user\" is missing"},
        Wrong{R"({"broker": {"host": "h", "client_id": "b", "tls": {"ca": "none"}}, )"
              R"("links": [{"name": "a", "address": "udp://10.0.0.1"}]})",
              "broker.tls.ca: invalid value"}));

TEST(BridgeProgram, SaysWhatItExpects)
{
    const auto run = [](const QStringList& arguments) {
        return ToolRun(arguments, {}, {QStringLiteral(COREMANAGE_BRIDGE)});
    };
    const QString nothing("coremanage-bridge: 0 files (expected one, the configuration)\n");
    EXPECT_EQ(run({}).error, nothing);
    EXPECT_EQ(run({}).code, 2);
    EXPECT_EQ(run({"a.json", "b.json"}).code, 2);
    EXPECT_EQ(run({"--chek", "a.json"}).error,
              QString("coremanage-bridge: Unknown option 'chek'.\n"));
    EXPECT_EQ(run({"--chek", "a.json"}).code, 2);
    EXPECT_TRUE(run({"--help"}).output.startsWith("Usage: ")) << run({"--help"}).output.data();
    EXPECT_EQ(run({"--help"}).code, 0);
    const QRegularExpression version("^[0-9]+[.][0-9]+[.][0-9]+\n$");
    EXPECT_TRUE(version.match(run({"--version"}).output).hasMatch());
    EXPECT_EQ(run({"--version"}).code, 0);
}

// The tool's own package does not bring it.
TEST(BridgeProgram, IsNamedWhereItIsMissing)
{
    const QTemporaryDir directory;
    const QString tool = directory.filePath("coremanage");
    ASSERT_TRUE(QFile::copy(builtTool(), tool));
    const QString build = QFileInfo(builtTool()).path() + "/..";
    const ToolRun run({"bridge", "bridge.json"}, {},
                      {"env", "PATH=" + directory.path(),
                       QString("LD_LIBRARY_PATH=%1:%1/host:%1/capture").arg(build), tool});
    EXPECT_EQ(run.code, 1);
    EXPECT_EQ(run.error,
              QString("coremanage: bridge: coremanage-bridge cannot be run: "
                      "No such file or directory: sudo apt install coremanage-bridge\n"));
}

} // namespace
