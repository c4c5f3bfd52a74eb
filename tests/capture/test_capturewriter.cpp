// SPDX-License-Identifier: MIT
#include "capturedpackets.h"
#include "capturewriter.h"
#include "tests/support/eventually.h"

#include <gtest/gtest.h>

#include <QFile>
#include <QProcess>
#include <QStandardPaths>
#include <QTemporaryDir>

#include <atomic>
#include <vector>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

constexpr qint64 roomy = 1 << 26;

CaptureRecord record(const QByteArray& bytes)
{
    CaptureRecord made;
    made.medium = CaptureRecord::Medium::Udp;
    made.what = CaptureRecord::What::Received;
    made.link = "udp://127.0.0.2:1000";
    made.device = {QHostAddress(QStringLiteral("127.0.0.2")), 1000};
    made.bytes = bytes;
    return made;
}

class Writer : public ::testing::Test
{
protected:
    QString path() const { return directory.filePath(QStringLiteral("wire.pcap")); }

    QString pipe() const
    {
        EXPECT_EQ(mkfifo(QFile::encodeName(path()).constData(), 0600), 0);
        return path();
    }

    QTemporaryDir directory;
};

} // namespace

TEST_F(Writer, WritesWhatLibpcapReads)
{
    CaptureWriter writer(roomy);
    ASSERT_TRUE(writer.open(path())) << writer.error().toStdString();
    constexpr qint64 time = 1700000000'123456789;
    for (int i = 0; i < 1000; ++i) {
        CaptureRecord one = record(QByteArray::number(i));
        one.time = time + i;
        writer.add(one);
    }
    writer.close();
    writer.add(record("too late"));
    EXPECT_EQ(writer.written(), 1000);
    EXPECT_EQ(writer.dropped(), 0);
    const auto read = capturedPackets(path());
    ASSERT_EQ(read.size(), 1000U);
    for (int i = 0; i < 1000; ++i) {
        const CaptureRecord& one = read[static_cast<std::size_t>(i)];
        EXPECT_EQ(one.bytes, QByteArray::number(i));
        EXPECT_EQ(one.time, time + i);
    }
}

TEST_F(Writer, WritesWhatTsharkReads)
{
    const QString tshark = QStandardPaths::findExecutable(QStringLiteral("tshark"));
    if (tshark.isEmpty()) {
        GTEST_SKIP() << "tshark is missing";
    }
    CaptureWriter writer(roomy);
    ASSERT_TRUE(writer.open(path()));
    writer.add(record("<F0000100000000010>"));
    writer.close();
    QProcess reader;
    reader.start(tshark, {QStringLiteral("-r"), path(), QStringLiteral("-T"),
                          QStringLiteral("fields"), QStringLiteral("-e"), QStringLiteral("ip.src"),
                          QStringLiteral("-e"), QStringLiteral("exported_pdu.ipv4_src"),
                          QStringLiteral("-e"), QStringLiteral("exported_pdu.src_port"),
                          QStringLiteral("-e"), QStringLiteral("exported_pdu.port_type")});
    ASSERT_TRUE(reader.waitForFinished(60000));
    EXPECT_EQ(reader.readAllStandardOutput().simplified(), "127.0.0.2 127.0.0.2 1000 3")
        << reader.readAllStandardError().toStdString();
}

TEST_F(Writer, CutsWhatIsLongerThanAPacket)
{
    const QByteArray bytes = QByteArray(300000, 'x') + "end";
    CaptureWriter writer(roomy);
    ASSERT_TRUE(writer.open(path()));
    writer.add(record(bytes));
    writer.add(record({}));
    writer.close();
    EXPECT_EQ(writer.written(), 2);
    const auto read = capturedPackets(path());
    ASSERT_EQ(read.size(), 4U);
    EXPECT_EQ(read[0].bytes + read[1].bytes + read[2].bytes, bytes);
    EXPECT_EQ(read[2].time, read[0].time);
    EXPECT_TRUE(read[3].bytes.isEmpty());
}

TEST_F(Writer, CountsWhatFindsNoRoom)
{
    constexpr int tried = 3000;
    const QString name = pipe();
    const int reader = open(QFile::encodeName(name).constData(), O_RDONLY | O_NONBLOCK);
    CaptureWriter writer(100000);
    ASSERT_TRUE(writer.open(name));
    for (int i = 0; i < tried; ++i) { // more than the pipe and the queue take
        writer.add(record(QByteArray(1000, 'x')));
    }
    EXPECT_GT(writer.dropped(), 0);
    std::thread closing([&writer] { writer.close(); });
    QByteArray all;
    char bytes[4096];
    EXPECT_TRUE(eventually([&] {
        ssize_t size = 0;
        while ((size = read(reader, bytes, sizeof bytes)) > 0) {
            all.append(bytes, static_cast<int>(size));
        }
        return size == 0 && !all.isEmpty();
    }));
    closing.join();
    close(reader);
    EXPECT_EQ(writer.written() + writer.dropped(), tried);
    QFile file(directory.filePath(QStringLiteral("read.pcap")));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(all);
    file.close();
    EXPECT_EQ(static_cast<qint64>(capturedPackets(file.fileName()).size()), writer.written());
}

TEST_F(Writer, EndsWhenTheReaderHasGone)
{
    const QString name = pipe();
    const int reader = open(QFile::encodeName(name).constData(), O_RDONLY | O_NONBLOCK);
    CaptureWriter writer(roomy);
    ASSERT_TRUE(writer.open(name));
    writer.add(record("read"));
    EXPECT_TRUE(eventually([&] { return writer.written() == 1; }));
    close(reader);
    for (int i = 0; i < 10; ++i) {
        writer.add(record("not read"));
    }
    EXPECT_TRUE(eventually([&] { return !writer.error().isEmpty(); }));
    writer.add(record("neither"));
    writer.close();
    EXPECT_EQ(writer.error(), QStringLiteral("Broken pipe"));
    EXPECT_EQ(writer.written(), 1);
    EXPECT_EQ(writer.dropped(), 11);
}

TEST_F(Writer, CountsWhatWaitedForAReaderThatHasGone)
{
    const QString name = pipe();
    const int reader = open(QFile::encodeName(name).constData(), O_RDONLY | O_NONBLOCK);
    CaptureWriter writer(roomy);
    ASSERT_TRUE(writer.open(name));
    const int capacity = fcntl(reader, F_GETPIPE_SZ);
    writer.add(record(QByteArray(capacity, 'x')));
    EXPECT_TRUE(eventually([reader] {
        int waiting = 0;
        return ioctl(reader, FIONREAD, &waiting) == 0 && waiting > 4096;
    }));
    for (int i = 0; i < 5; ++i) { // the one before cannot be finished
        writer.add(record("waits"));
    }
    close(reader);
    writer.close();
    EXPECT_EQ(writer.written(), 0);
    EXPECT_EQ(writer.dropped(), 6);
}

TEST_F(Writer, SaysThatTheDiskIsFull)
{
    CaptureWriter writer(roomy);
    ASSERT_TRUE(writer.open(QStringLiteral("/dev/full")));
    writer.add(record("lost"));
    EXPECT_TRUE(eventually([&] { return !writer.error().isEmpty(); }));
    writer.close();
    EXPECT_EQ(writer.error(), QStringLiteral("No space left on device"));
    EXPECT_EQ(writer.written(), 0);
    EXPECT_EQ(writer.dropped(), 1);
}

TEST_F(Writer, SaysWhatCannotBeOpened)
{
    CaptureWriter writer(roomy);
    EXPECT_FALSE(writer.open(directory.filePath(QStringLiteral("none/wire.pcap"))));
    EXPECT_TRUE(writer.error().contains(QStringLiteral("No such file")))
        << writer.error().toStdString();
    writer.add(record("nowhere"));
    EXPECT_EQ(writer.dropped(), 0);
    ASSERT_TRUE(writer.open(path())) << "another one may be";
    EXPECT_TRUE(writer.error().isEmpty());
}

TEST_F(Writer, TakesFromManyThreadsAtOnce)
{
    constexpr int each = 2000;
    CaptureWriter writer(roomy);
    ASSERT_TRUE(writer.open(path()));
    std::vector<std::thread> threads;
    for (char name = 'a'; name < 'e'; ++name) {
        threads.emplace_back([&writer, name] {
            for (int i = 0; i < each; ++i) {
                writer.add(record(name + QByteArray::number(i)));
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    writer.close();
    const auto read = capturedPackets(path());
    EXPECT_EQ(static_cast<qint64>(read.size()), writer.written());
    EXPECT_EQ(writer.written(), 4 * each);
    int next[4] = {};
    for (const CaptureRecord& one : read) {
        EXPECT_EQ(one.bytes.mid(1).toInt(), next[one.bytes.at(0) - 'a']++);
    }
}
