// SPDX-License-Identifier: MIT
#include "tests/transports/udppeer.h"
#include "toolprocess.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QDirIterator>

namespace
{

QByteArray contentOf(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

QStringList filesIn(const QString& directory)
{
    QStringList files;
    QDirIterator entries(directory, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    while (entries.hasNext()) {
        files << QDir(directory).relativeFilePath(entries.next());
    }
    return files;
}

QStringList sendTo(const UdpPeer& device, const QStringList& more = {})
{
    return QStringList{
               QStringLiteral("send"),      QStringLiteral("udp://127.0.0.1:%1").arg(device.port()),
               QStringLiteral("--cmd"),     QStringLiteral("1"),
               QStringLiteral("--timeout"), QStringLiteral("0")} +
           more;
}

TEST(ToolLog, GoesToTheStateDirectory)
{
    const UdpPeer device;
    ToolProcess tool(sendTo(device));
    EXPECT_EQ(tool.exitCode(), 0);
    const QString log = QStringLiteral(".local/state/coremanage/coremanage.log");
    EXPECT_EQ(filesIn(tool.home()), QStringList(log));
    EXPECT_TRUE(contentOf(tool.home() + QLatin1Char('/') + log)
                    .contains("Send successful:<T0000010000000001>\n"));
}

TEST(ToolLog, GoesWhereItIsTold)
{
    const UdpPeer device;
    QTemporaryDir directory;
    const QString path = directory.filePath(QStringLiteral("new/tool.log"));
    ToolProcess tool(sendTo(device, {QStringLiteral("--log"), path}));
    EXPECT_EQ(tool.exitCode(), 0) << tool.error().toStdString();
    EXPECT_TRUE(contentOf(path).contains("Send successful:<T0000010000000001>\n"));
    EXPECT_TRUE(filesIn(tool.home()).isEmpty());
}

TEST(ToolLog, LeavesNothingBehindWhereNoneIsNeeded)
{
    for (const char* arguments : {"demo", "encode --cmd 1", "decode <F010203040506071c>"}) {
        ToolProcess tool(QString::fromLatin1(arguments).split(QLatin1Char(' ')));
        EXPECT_EQ(tool.exitCode(), 0) << arguments;
        EXPECT_TRUE(filesIn(tool.home()).isEmpty()) << arguments;
    }
}

TEST(ToolLog, ShowsDebugLinesWhenAskedTo)
{
    const UdpPeer device;
    const ToolRun quiet(sendTo(device));
    EXPECT_TRUE(quiet.error.isEmpty()) << quiet.error.toStdString();
    const ToolRun verbose(sendTo(device, {QStringLiteral("--verbose")}));
    EXPECT_TRUE(verbose.error.contains(QStringLiteral("Send successful\n")));
    EXPECT_TRUE(verbose.error.contains(QStringLiteral("\"Send data:<T0000010000000001>\"\n")))
        << verbose.error.toStdString();
}

} // namespace
