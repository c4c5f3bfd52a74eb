// SPDX-License-Identifier: MIT
#include "biz_osd_cmdswork.h"
#include "hostqueue.h"
#include "model_protocoldata.h"
#include "netns.h"
#include "utility_manage.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <algorithm>
#include <cstddef>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <sys/mount.h>

namespace
{

QStringList written(const QString& text)
{
    const auto before = hostqueue::logLines().size();
    Utility_Manage::writeLog(text);
    return hostqueue::logLines().mid(before);
}

} // namespace

TEST(WriteLog, OneCallIsOneLineWhateverItGets)
{
    EXPECT_EQ(written(QStringLiteral("plain")), QStringList(QStringLiteral("plain")));
    EXPECT_EQ(written(QString()), QStringList(QString()));
    EXPECT_EQ(written(QStringLiteral("a\nb\r\tc\\")),
              QStringList(QStringLiteral("a\\nb\\r\\tc\\\\")));
    EXPECT_EQ(written(QStringLiteral("\x1b[2J\x7f")), QStringList(QStringLiteral("\\x1b[2J\\x7f")));
    EXPECT_EQ(written(QString::fromUtf8("gr\xc3\xbc\xc3\x9f \xf0\x9f\x98\x80")),
              QStringList(QString::fromUtf8("gr\xc3\xbc\xc3\x9f \xf0\x9f\x98\x80")));
    EXPECT_EQ(written(QString(QChar(0x2028)) + QChar(0x2029) + QChar(0x85) + QChar(0xd800)),
              QStringList(QStringLiteral("\\u2028\\u2029\\x85\\ud800")));
    EXPECT_EQ(written(QString(QChar(0)) + QStringLiteral("end")),
              QStringList(QStringLiteral("\\x00end")));
    EXPECT_EQ(written(QStringLiteral("{} %v %s")), QStringList(QStringLiteral("{} %v %s")));
}

TEST(WriteLog, EveryCodePointStaysOnItsLine)
{
    for (int code = 0; code < 0x10000; ++code) {
        Utility_Manage::writeLog(QString(QChar(code)) + QLatin1Char('x'));
    }
    const QStringList lines = hostqueue::logLines();
    ASSERT_EQ(lines.size(), 0x10000);
    for (const QString& line : lines) {
        ASSERT_TRUE(line.endsWith(QLatin1Char('x')));
    }
}

TEST(WriteLog, LinesOfSeveralThreadsStayWhole)
{
    std::vector<std::thread> writers;
    writers.reserve(4);
    for (int writer = 0; writer < 4; ++writer) {
        writers.emplace_back([writer] {
            for (int i = 0; i < 500; ++i) {
                Utility_Manage::writeLog(
                    QString(200, QLatin1Char(static_cast<char>('a' + writer))));
            }
        });
    }
    for (std::thread& writer : writers) {
        writer.join();
    }
    for (int writer = 0; writer < 4; ++writer) {
        EXPECT_EQ(hostqueue::countLog(QString(200, QLatin1Char(static_cast<char>('a' + writer)))),
                  500);
    }
}

TEST(WriteLog, FileIsBounded)
{
    const QTemporaryDir directory;
    const QString path = directory.filePath(QStringLiteral("made/for it/app.log"));
    ASSERT_TRUE(Utility_Manage::setLogFile(path, 4096, 2));
    EXPECT_EQ(Utility_Manage::logFile(), path);
    for (int i = 0; i < 2000; ++i) {
        Utility_Manage::writeLog(QString(100, QLatin1Char('x')));
    }
    qint64 total = 0;
    const auto files =
        QDir(directory.filePath(QStringLiteral("made/for it"))).entryInfoList(QDir::Files);
    for (const QFileInfo& file : files) {
        EXPECT_LE(file.size(), 4096);
        total += file.size();
    }
    EXPECT_EQ(files.size(), 3);
    EXPECT_GT(total, 4096);
}

TEST(WriteLog, RefusedFileKeepsTheLogAsItWas)
{
    const QString before = Utility_Manage::logFile();
    EXPECT_FALSE(Utility_Manage::setLogFile(QString()));
    EXPECT_FALSE(Utility_Manage::setLogFile(QStringLiteral("/proc/no/such.log")));
    EXPECT_FALSE(Utility_Manage::setLogFile(before, 10));
    EXPECT_FALSE(Utility_Manage::setLogFile(before, 4096, -1));
    EXPECT_EQ(Utility_Manage::logFile(), before);
    EXPECT_EQ(written(QStringLiteral("still here")), QStringList(QStringLiteral("still here")));
}

TEST(WriteLog, GoesOnWhenAFullDiskHasRoom)
{
    const QTemporaryDir disk;
    if (!netns::isolated() ||
        mount("tmpfs", qPrintable(disk.path()), "tmpfs", 0, "size=64k") != 0) {
        GTEST_SKIP() << "the right to mount a small disk is missing";
    }
    ASSERT_TRUE(Utility_Manage::setLogFile(disk.filePath(QStringLiteral("app.log"))));
    testing::internal::CaptureStderr();
    const QString line(1000, QLatin1Char('x'));
    for (int i = 0; i < 200; ++i) {
        Utility_Manage::writeLog(line);
    }
    const std::string said = testing::internal::GetCapturedStderr();
    EXPECT_NE(said.find("No space left"), std::string::npos) << said;
    EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 1) << said;
    ASSERT_EQ(mount("tmpfs", qPrintable(disk.path()), "tmpfs", MS_REMOUNT, "size=1m"), 0);
    for (int i = 0; i < 3; ++i) {
        Utility_Manage::writeLog(QStringLiteral("room again"));
    }
    EXPECT_GE(hostqueue::countLog(QStringLiteral("room again")), 2);
    const QTemporaryDir elsewhere; // or the disk is in use
    ASSERT_TRUE(Utility_Manage::setLogFile(elsewhere.filePath(QStringLiteral("app.log"))));
    EXPECT_EQ(umount(qPrintable(disk.path())), 0);
}

/// More lines than one file takes, while the log cannot go on in this directory: it says so once,
/// and goes on when it can.
void failsOnceIn(const QString& directory, const std::function<bool()>& spoil,
                 const std::function<bool()>& mend)
{
    ASSERT_TRUE(Utility_Manage::setLogFile(directory + QStringLiteral("/app.log"), 1024, 1));
    ASSERT_TRUE(spoil());
    testing::internal::CaptureStderr();
    for (int i = 0; i < 50; ++i) {
        Utility_Manage::writeLog(QString(100, QLatin1Char('x')));
    }
    const std::string said = testing::internal::GetCapturedStderr();
    EXPECT_EQ(std::count(said.begin(), said.end(), '\n'), 1) << said;
    ASSERT_TRUE(mend());
    for (int i = 0; i < 3; ++i) {
        Utility_Manage::writeLog(QStringLiteral("back"));
    }
    EXPECT_GE(hostqueue::countLog(QStringLiteral("back")), 1); // others in the file before
}

TEST(WriteLog, GoesOnWhenADirectoryThatWentIsBack)
{
    const QTemporaryDir place;
    const QString directory = place.filePath(QStringLiteral("logs"));
    QFile inTheWay(directory);
    failsOnceIn(
        directory,
        [&] { return QDir(directory).removeRecursively() && inTheWay.open(QIODevice::WriteOnly); },
        [&] { return inTheWay.remove(); });
}

TEST(WriteLog, GoesOnWhenAReadOnlyDirectoryIsWritableAgain)
{
    if (!netns::isolated()) {
        GTEST_SKIP() << "the right to mount a directory is missing";
    }
    const QTemporaryDir place;
    const QByteArray path = place.path().toLocal8Bit();
    failsOnceIn(
        place.path(),
        [&] {
            return mount(path, path, nullptr, MS_BIND, nullptr) == 0 &&
                   mount(nullptr, path, nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr) == 0;
        },
        [&] { return umount(path) == 0; });
}

TEST(Utility, Bytes)
{
    for (int value = 0; value < 65536; ++value) {
        const auto word = static_cast<quint16>(value);
        const quint8 high = Utility_Manage::getHighByte(word);
        const quint8 low = Utility_Manage::getLowByte(word);
        ASSERT_EQ(high, value / 256);
        ASSERT_EQ(low, value % 256);
        ASSERT_EQ(static_cast<quint16>(Utility_Manage::combineTwoByte(low, high)), value);
    }
}

TEST(Utility, DeviceType)
{
    EXPECT_EQ(Utility_Manage::getDeviceType(), model_GlobalEnum::DeviceUnknown);
    Utility_Manage::setDeviceType(static_cast<model_GlobalEnum::DeviceType>(-2));
    EXPECT_EQ(Utility_Manage::getDeviceType(), -2);
}

TEST(Records, MembersStandInTheProtocolsOrder)
{
    const model_Protocoldata record;
    const auto* base = reinterpret_cast<const char*>(&record);
    const void* members[] = {
        &record.strKey,   &record.bKeyFlag,   &record.strKey2,  &record.HEAD,
        &record.aux1,     &record.aux2,       &record.aux3,     &record.aux4,
        &record.aux5,     &record.aux6,       &record.ADDR,     &record.CMD,
        &record.DAT1,     &record.DAT2,       &record.DAT3,     &record.DAT4,
        &record.CHKSUM,   &record.aux7,       &record.strReply, &record.arryDatablock,
        &record.sendMode, &record.featureCode};
    std::ptrdiff_t last = -1;
    for (const void* member : members) {
        const std::ptrdiff_t offset = static_cast<const char*>(member) - base;
        EXPECT_GT(offset, last);
        last = offset;
    }
    EXPECT_TRUE(record.strKey.isEmpty() && record.arryDatablock.isEmpty());
    EXPECT_EQ(record.featureCode, 0);
}

TEST(Records, OsdQueueTakesAcknowledgements)
{
    model_OsdParam record;
    record.arryData = "OKz";
    biz_Osd_CMDSWork::addToReceiveQueue(record);
    EXPECT_EQ(biz_Osd_CMDSWork::receivequeueOsd.back().arryData, QByteArray("OKz"));
}
