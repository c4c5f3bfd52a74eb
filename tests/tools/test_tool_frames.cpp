// SPDX-License-Identifier: MIT
#include "eventually.h"
#include "toolprocess.h"

#include <gtest/gtest.h>

#include <QFile>

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace
{

QStringList words(const char* text)
{
    return QString::fromLatin1(text).split(QLatin1Char(' '));
}

TEST(Encode, PrintsTheFrameInHexadecimal)
{
    const ToolRun run(
        words("encode --head 1 --addr 2 --cmd 3 --dat1 4 --dat2 5 --dat3 6 --dat4 7"));
    EXPECT_EQ(run.code, 0) << run.error.toStdString();
    EXPECT_EQ(run.output, QByteArray("<T010203040506071c>").toHex() + '\n');
    EXPECT_TRUE(run.error.isEmpty());
}

TEST(Encode, WritesTheFrameAsItIs)
{
    const ToolRun run(words("encode --cmd 0x8b --dat1 5 --block 00ff3c0a --raw"));
    EXPECT_EQ(run.code, 0);
    EXPECT_EQ(run.output,
              QByteArray("<T00008b050004009").append("4>") + QByteArray::fromHex("00ff3c0a"));
}

TEST(Encode, TakesTheBlocksLengthForTheFieldsThatAreNotGiven)
{
    QTemporaryDir directory;
    QFile file(directory.filePath(QStringLiteral("block")));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(QByteArray(0x0203, 'b'));
    file.close();
    const QStringList arguments{QStringLiteral("encode"),  QStringLiteral("--cmd"),
                                QStringLiteral("1"),       QStringLiteral("--raw"),
                                QStringLiteral("--block"), QStringLiteral("@") + file.fileName()};
    const ToolRun both(arguments);
    EXPECT_EQ(both.output.left(19), QByteArray("<T0000010000030206>"));
    EXPECT_EQ(both.output.size(), 19 + 0x0203);
    const ToolRun given(arguments + words("--dat3 9"));
    EXPECT_EQ(given.output.left(19), QByteArray("<T000001000009020c>"));
    const ToolRun digits(words("encode --cmd 1 --raw --block") +
                         QStringList(QString(2 * 65535, QLatin1Char('b'))));
    EXPECT_EQ(digits.output.mid(19), QByteArray(65535, '\xbb'));
    const ToolRun none(words("encode --cmd 1 --raw"));
    EXPECT_EQ(none.output, QByteArray("<T0000010000000001>"));
}

TEST(Encode, WritesBinaryFrames)
{
    const ToolRun run(words("encode --binary --cmd 6 --dat1 7 --dat2 8 --dat3 9 --dat4 10 "
                            "--addr 2 --aux3 3 --aux4 4 --aux5 5 --block 010203"));
    EXPECT_EQ(run.code, 0) << run.error.toStdString();
    EXPECT_EQ(run.output, QByteArray("f11f0203000400050003060708090a49010203\n"));
    const ToolRun other(words("encode --binary --cmd 0 --aux1 0x1234 --json"));
    EXPECT_EQ(other.json.value(QStringLiteral("frame")).toString(),
              QStringLiteral("12340000000000000000000000000046"));
    EXPECT_EQ(other.json.value(QStringLiteral("form")).toString(), QStringLiteral("binary"));
    EXPECT_EQ(other.json.value(QStringLiteral("length")).toInt(), 16);
}

TEST(Encode, SaysWhenItsOutputIsLost)
{
    for (const char* arguments : {"encode --cmd 1", "--help", "--version", "send --help"}) {
        QProcess tool;
        tool.setStandardOutputFile(QStringLiteral("/dev/full"));
        tool.start(QStringLiteral(COREMANAGE), words(arguments));
        ASSERT_TRUE(eventually([&tool] { return tool.state() == QProcess::NotRunning; }));
        EXPECT_EQ(tool.exitCode(), 1) << arguments;
        EXPECT_TRUE(tool.readAllStandardError().contains("standard output could not be written"));
    }
}

// Starts the tool with a pipe to write to, and waits until it has taken what was written first.
class WritingInParts
{
public:
    WritingInParts(const QStringList& arguments, const QByteArray& first)
    {
        tool.start(builtTool(), arguments);
        EXPECT_TRUE(tool.waitForStarted());
        tool.write(first);
        EXPECT_TRUE(eventually([this] { return tool.bytesToWrite() == 0 && hasReadAll(); }));
    }

    QByteArray end(const QByteArray& rest)
    {
        tool.write(rest);
        tool.closeWriteChannel();
        EXPECT_TRUE(eventually([this] { return tool.state() == QProcess::NotRunning; }));
        EXPECT_EQ(tool.exitCode(), 0) << tool.readAllStandardError().constData();
        return tool.readAllStandardOutput();
    }

private:
    bool hasReadAll() const
    {
        const QString input = QStringLiteral("/proc/%1/fd/0").arg(tool.processId());
        const int descriptor =
            open(input.toLocal8Bit().constData(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        int waiting = -1;
        ioctl(descriptor, FIONREAD, &waiting);
        close(descriptor);
        return waiting == 0;
    }

    QProcess tool;
};

TEST(Encode, ReadsStandardInputToItsEnd)
{
    const QStringList arguments = words("encode --cmd 1 --raw --block @-");
    WritingInParts parts(arguments, "abc");
    EXPECT_EQ(parts.end(QByteArray(300, 'd')).mid(19), "abc" + QByteArray(300, 'd'));
    const QByteArray most(65535, 'm');
    const ToolRun run(arguments, most);
    EXPECT_EQ(run.code, 0) << run.error.toStdString();
    EXPECT_EQ(run.output.mid(19), most);
    const ToolRun tooLong(arguments, most + 'm');
    EXPECT_EQ(tooLong.code, 2);
    EXPECT_TRUE(tooLong.error.contains(QStringLiteral("(expected 0 to 65535 bytes)")));
}

TEST(Decode, ReadsStandardInputToItsEnd)
{
    WritingInParts parts(words("decode -"), "<F0102030");
    EXPECT_TRUE(parts.end("40506071c>").startsWith("reply HEAD 01 "));
    const QByteArray block(65535, 'b');
    const ToolRun encoded(words("encode --cmd 1 --raw --block @-"), block);
    const ToolRun decoded(words("decode - --json"), encoded.output);
    EXPECT_EQ(decoded.json.value(QStringLiteral("block_length")).toInt(), block.size());
    EXPECT_TRUE(decoded.json.value(QStringLiteral("valid")).toBool());
}

void expectReply(const ToolRun& run)
{
    EXPECT_EQ(run.code, 0) << run.error.toStdString();
    EXPECT_TRUE(run.output.startsWith(
        "reply HEAD 01 ADDR 02 CMD 03 DAT1 04 DAT2 05 DAT3 06 DAT4 07 CHKSUM 1c\n"))
        << run.output.constData();
}

TEST(Decode, TakesTextDigitsFilesAndStandardInput)
{
    const QByteArray frame = "<F010203040506071c>";
    expectReply(ToolRun({QStringLiteral("decode"), QString::fromLatin1(frame)}));
    expectReply(ToolRun({QStringLiteral("decode"), QString::fromLatin1(frame.toHex())}));
    expectReply(ToolRun({QStringLiteral("decode"), QString::fromLatin1(frame.toHex(' '))}));
    expectReply(ToolRun(words("decode -"), frame));
    expectReply(ToolRun(words("decode -"), frame.toHex('\n') + '\n'));
    QTemporaryDir directory;
    QFile file(directory.filePath(QStringLiteral("frame")));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(frame);
    file.close();
    expectReply(ToolRun({QStringLiteral("decode"), QStringLiteral("@") + file.fileName()}));
}

TEST(Decode, TakesWhatEncodePrints)
{
    for (const char* arguments :
         {"encode --cmd 0x8b --dat1 5 --block 00ff3c0a", "encode --binary --cmd 5 --block 30313233",
          "encode --binary --aux1 0x3030 --cmd 0x30"}) {
        const ToolRun encoded(words(arguments));
        const QStringList form = QString::fromLatin1(arguments).contains(QLatin1String("--binary"))
                                     ? words("decode - --json --binary")
                                     : words("decode - --json");
        const ToolRun decoded(form, encoded.output);
        EXPECT_EQ(decoded.code, 0) << decoded.error.toStdString();
        EXPECT_TRUE(decoded.json.value(QStringLiteral("valid")).toBool());
    }
}

TEST(Decode, ShowsTheBlock)
{
    const ToolRun run(words("decode -"), QByteArray("<T00008b0500040094>abc\n"));
    EXPECT_EQ(run.code, 0) << run.error.toStdString();
    EXPECT_TRUE(run.output.startsWith("command HEAD 00 ADDR 00 CMD 8b DAT1 05 "));
    EXPECT_TRUE(run.output.contains("  0000  61 62 63 0a "));
    EXPECT_TRUE(run.output.contains("  abc.\n"));
    const ToolRun json(words("decode - --json"), QByteArray("<T00008b0500040094>abc\n"));
    EXPECT_EQ(json.json.value(QStringLiteral("block")).toString(), QStringLiteral("6162630a"));
    EXPECT_EQ(json.json.value(QStringLiteral("block_length")).toInt(), 4);
    EXPECT_EQ(json.json.value(QStringLiteral("cmd")).toInt(), 0x8b);
}

TEST(Decode, TakesABinaryFileOfDigitsAsItIs)
{
    QByteArray frame = QByteArray(15, '0');
    frame.append(static_cast<char>(15 * '0')); // 0xd0
    const ToolRun run(words("decode - --binary"), frame);
    EXPECT_EQ(run.code, 1) << "announces 0x3030 bytes";
    EXPECT_TRUE(run.error.contains(QStringLiteral("announces 12336 block bytes and has 0")))
        << run.error.toStdString();
    frame = QByteArray(16, '0');
    const ToolRun raw(words("decode - --binary --raw"), frame);
    EXPECT_TRUE(raw.error.contains(QStringLiteral("checksum is 30, and d0 would be right")))
        << raw.error.toStdString();
    const ToolRun digits(words("decode - --binary"), frame);
    EXPECT_TRUE(digits.error.contains(QStringLiteral("this has 8"))) << digits.error.toStdString();
}

TEST(Decode, SaysWhatIsWrongWithAFrame)
{
    const struct {
        const char* frame;
        const char* says;
    } cases[] = {
        {"<F010203040506071d>", "its checksum is 1d, and 1c would be right"},
        {"<F010203040506071c", "a text frame has at least 19 bytes, this has 18"},
        {"<F010203040506071c)", "it does not end with >"},
        {"<F01020304050607zc>", "its digits are not all hexadecimal"},
        {"<G010203040506071c>", "begins with <T or <F"},
        {"3c", "at least 19 bytes, this has 1"},
    };
    for (const auto& wrong : cases) {
        const ToolRun run({QStringLiteral("decode"), QLatin1String(wrong.frame)});
        EXPECT_EQ(run.code, 1) << wrong.frame;
        EXPECT_TRUE(run.error.contains(QLatin1String(wrong.says))) << run.error.toStdString();
        EXPECT_EQ(run.error.count(QLatin1Char('\n')), 1);
    }
}

TEST(Decode, SaysWhatIsWrongBehindAFrame)
{
    const struct {
        const char* options;
        QByteArray frame;
        const char* says; // null: nothing is wrong
    } cases[] = {
        {"", "<F0000102000000030>", nullptr},
        {"", "<F0000102000000030>abc", "a reply of its kind has no block, and 3 bytes follow it"},
        {"", "<F0000790c00000085>abc", "a reply of its kind has no block, and 3 bytes follow it"},
        {"", "<F00008e27000400b9>", nullptr},
        {"", "<F00008e27000400b9>abcd", nullptr},
        {"", "<F00008e27000400b9>abc", "it announces 4 block bytes and has 3"},
        {"", "<F00008e27000400b9>abcde", "it announces 4 block bytes and has 5"},
        {"", "<F00008b0500000090>" + QByteArray(145, 'b'), nullptr},
        {"", "<F00008b0500000090>" + QByteArray(144, 'b'),
         "a reply of its kind has a block of 145 bytes, and 144 follow it"},
        {"", "<F0000690900000072>" + QByteArray(33, 'b'), nullptr},
        {"", "<F0000690900000072>" + QByteArray(129, 'b'), nullptr},
        {"", "<F0000690900000072>" + QByteArray(130, 'b'),
         "a reply of its kind has a block of 129 bytes, and 130 follow it"},
        {"", "<T00008b0500040094>", nullptr},
        {"", "<T00008b0500040094>abcd", nullptr},
        {"", "<T00008b0500040094>abc", "it announces 4 block bytes and has 3"},
        {"", "<T00008b0500000090>abc", "it announces 0 block bytes and has 3"},
        {" --binary", QByteArray::fromHex("f11f0203000400050003060708090a49010203"), nullptr},
        {" --binary", QByteArray::fromHex("f11f0203000400050003060708090a4901020304"),
         "it announces 3 block bytes and has 4"},
    };
    for (const auto& each : cases) {
        const ToolRun run(words(QStringLiteral("decode - --json") + QLatin1String(each.options)),
                          each.frame);
        EXPECT_EQ(run.code, each.says == nullptr ? 0 : 1) << each.frame.constData();
        EXPECT_EQ(run.json.value(QStringLiteral("valid")).toBool(), each.says == nullptr)
            << each.frame.constData();
        if (each.says != nullptr) {
            EXPECT_EQ(
                run.error,
                QStringLiteral("coremanage: no valid frame: %1\n").arg(QLatin1String(each.says)));
        }
    }
}

TEST(Osd, FramesGoThereAndBack)
{
    const ToolRun run(words("encode --osd --ch2 1 --ch3 2 --ch4 3 --ch5 4 --ch7 6 --ch8 7 --ch9 8 "
                            "--ch10 0xff --data aabb"));
    EXPECT_EQ(run.code, 0) << run.error.toStdString();
    EXPECT_EQ(run.output, QByteArray("010204030607aabb08ff\n"));
    const ToolRun back(words("decode --osd -"), run.output);
    EXPECT_EQ(back.code, 0) << back.error.toStdString();
    EXPECT_TRUE(back.output.startsWith(
        "command ch2 01 ch3 02 ch5 04 ch4 03 ch7 06 ch8 07 ch9 08 ch10 ff\n  0000  aa bb "))
        << back.output.constData();
    const ToolRun json(words("decode --osd --json 0102040306070809"));
    EXPECT_EQ(json.json.value(QStringLiteral("ch4")).toInt(), 3);
    EXPECT_EQ(json.json.value(QStringLiteral("ch10")).toInt(), 9);
    EXPECT_EQ(json.json.value(QStringLiteral("data_length")).toInt(), 0);
    EXPECT_EQ(
        ToolRun(words("encode --osd --ch9 1 --json")).json.value(QStringLiteral("form")).toString(),
        QStringLiteral("osd"));
}

TEST(Osd, DecodesAcknowledgements)
{
    const ToolRun run(words("decode --osd 4f4bff"));
    EXPECT_EQ(run.code, 0) << run.error.toStdString();
    EXPECT_EQ(run.output, QByteArray("reply OK ff\n"));
    EXPECT_EQ(
        ToolRun(words("decode --osd --json 4f4b07")).json.value(QStringLiteral("status")).toInt(),
        7);
    for (const char* wrong : {"4f4b", "4f4c07", "4f4b0708", "01020403060708"}) {
        const ToolRun failed(
            {QStringLiteral("decode"), QStringLiteral("--osd"), QLatin1String(wrong)});
        EXPECT_EQ(failed.code, 1) << wrong;
        EXPECT_TRUE(failed.error.contains(QStringLiteral("a command has at least 8 bytes")));
    }
}

} // namespace
