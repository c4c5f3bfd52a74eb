// SPDX-License-Identifier: MIT
#include "eventually.h"
#include "exampledevice.h"
#include "netns.h"

#include <QImage>
#include <QRegularExpression>
#include <QStandardPaths>

namespace
{

// Two servers that start at once compile their keyboards into one file.
QStringList xvfb()
{
    if (netns::isolated()) {
        EXPECT_TRUE(netns::run("mount -t tmpfs keyboards /var/lib/xkb"));
    }
    return {"Xvfb"};
}

// A virtual screen, which says where it is.
class Screen
{
public:
    Screen() : process({"-displayfd", "1", "-nolisten", "tcp"}, {}, xvfb())
    {
        EXPECT_TRUE(eventually([this] { // its warnings are lines, too
            return process.says("\n") && process.output().contains('\n');
        })) << process.error().toStdString();
    }

    // Qt's platform plugin never gives back some of what it has from the system's libraries.
    QStringList environment() const
    {
        return {"DISPLAY=:" + process.lines().value(0), "ASAN_OPTIONS=detect_leaks=0"};
    }

private:
    ToolProcess process;
};

// How often the colour changes along a line.
int changes(const QImage& image, int y)
{
    int count = 0;
    for (int x = 1; x < image.width(); ++x) {
        count += image.pixel(x, y) != image.pixel(x - 1, y) ? 1 : 0;
    }
    return count;
}

TEST(LiveTable, ShowsRepliesAndTheirRoundTrips)
{
    if (QStandardPaths::findExecutable("Xvfb").isEmpty()) {
        GTEST_SKIP() << "Xvfb is missing, of the package xvfb";
    }
    const Screen screen;
    const ExampleDevice device("udp://127.0.0.1:0", "--fault drop=1");
    ToolProcess host({"127.0.0.1", device.port(), "--replies", "20", "--picture", "picture.png"},
                     {}, example("livetable", screen.environment()));
    EXPECT_EQ(host.exitCode(), 0) << host.error().toStdString();
    const QRegularExpressionMatch summary =
        QRegularExpression("^20 replies, (\\d+) lost\n$").match(host.output());
    ASSERT_TRUE(summary.hasMatch()) << host.output().constData();
    EXPECT_GE(summary.captured(1).toInt(), 1) << "more, if the device is late";
    const QImage picture(host.home() + "/picture.png");
    ASSERT_EQ(picture.size(), QSize(640, 480));
    constexpr int plotBottom = 463;
    EXPECT_GE(changes(picture, plotBottom), 2 * 20) << "a bar for each reply";
    EXPECT_GE(changes(picture, 50), 10) << "text in the table";
}

TEST(LiveTable, SaysThatThePictureCannotBeWritten)
{
    if (QStandardPaths::findExecutable("Xvfb").isEmpty()) {
        GTEST_SKIP() << "Xvfb is missing, of the package xvfb";
    }
    const Screen screen;
    const ExampleDevice device("udp://127.0.0.1:0");
    const ToolRun host({"127.0.0.1", device.port(), "--replies", "1", "--picture", "/nowhere/p"},
                       {}, example("livetable", screen.environment()));
    EXPECT_EQ(host.code, 1) << host.error.toStdString();
    EXPECT_TRUE(host.error.contains("/nowhere/p: cannot be written\n"));
}

} // namespace
