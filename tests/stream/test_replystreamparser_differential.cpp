// SPDX-License-Identifier: MIT
#include "replybytes.h"
#include "replystreamcomparison.h"

#include <gtest/gtest.h>
#include <rapidcheck/gtest.h>

#include <QDir>
#include <QFile>

namespace
{

using replystreamcomparison::Line;

constexpr int lateness = 160; // pauses; a wait for a block has 150

QByteArray randomBytes(int length)
{
    QByteArray bytes;
    for (int i = 0; i < length; ++i) {
        // Half of it are bytes that mean something to a parser.
        bytes.append(*rc::gen::inRange(0, 2) == 0
                         ? "<F>T0123456789abcdef\xF1\x1F"[*rc::gen::inRange(0, 22)]
                         : static_cast<char>(*rc::gen::inRange(0, 256)));
    }
    return bytes;
}

QByteArray anyReply(Line line)
{
    struct Row {
        int command;
        int subCode;
        int length; // -1: announced
    };
    static const Row rows[] = {{0x10, 0x20, 0},   {0x79, 0x0C, 0},   {0x79, 0x0D, -1},
                               {0xF1, 0x40, -1},  {0x8E, 0x27, -1},  {0x8B, 0x05, 145},
                               {0x77, 0x23, 129}, {0x69, 0x09, 129}, {0x69, 0x09, 33},
                               {0x8B, 0x09, 129}};
    const Row& row = rows[*rc::gen::inRange<std::size_t>(0, std::size(rows))];
    const int announced = *rc::gen::weightedOneOf<int>({{8, rc::gen::inRange(0, 40)},
                                                        {2, rc::gen::inRange(0, 700)},
                                                        {1, rc::gen::inRange(0, 65536)}});
    const int length = line == Line::SecondSerial || row.length < 0 ? announced : row.length;
    const QByteArray block = length == 0 ? QByteArray() : replybytes::block(qMin(length, 2000));
    if (line == Line::SecondSerial) {
        return replybytes::head(length) + block;
    }
    return replybytes::text(row.command, row.subCode, length & 0xff, length >> 8) + block;
}

QByteArray mutated(QByteArray bytes)
{
    const auto position = *rc::gen::inRange<QByteArray::size_type>(0, bytes.size());
    switch (*rc::gen::inRange(0, 3)) {
    case 0:
        bytes[position] = static_cast<char>(*rc::gen::inRange(0, 256));
        return bytes;
    case 1:
        return bytes.left(position);
    default:
        return bytes.remove(position, 1);
    }
}

QVector<QByteArray> randomChunks(Line line)
{
    QByteArray stream;
    const int parts = *rc::gen::inRange(1, 12);
    for (int part = 0; part < parts; ++part) {
        switch (*rc::gen::inRange(0, 6)) {
        case 0:
            stream += randomBytes(*rc::gen::inRange(0, 60));
            break;
        case 1:
            stream += mutated(anyReply(line));
            break;
        case 2:
            stream += QByteArray(*rc::gen::inRange(0, 3000), static_cast<char>(0x55));
            break;
        default:
            stream += anyReply(line);
        }
    }
    QVector<QByteArray> chunks;
    const int largest = *rc::gen::element(1, 7, 64, 255);
    for (QByteArray::size_type position = 0; position < stream.size();) {
        const QByteArray chunk = stream.mid(position, *rc::gen::inRange(1, largest + 1));
        chunks.append(chunk);
        position += chunk.size();
        if (*rc::gen::inRange(0, 20) == 0) {
            chunks.insert(chunks.size(), lateness, QByteArray());
        }
    }
    return chunks;
}

} // namespace

class ReplyStreamDifferential : public ::testing::TestWithParam<int>
{
};

TEST_P(ReplyStreamDifferential, RandomStreamsEndAlike)
{
    const auto line = static_cast<Line>(GetParam());
    const bool agreed = rc::check([line] {
        const QVector<QByteArray> chunks = randomChunks(line);
        const QString difference = replystreamcomparison::difference(line, chunks);
        if (!difference.isEmpty()) {
            RC_FAIL(difference.toStdString());
        }
    });
    EXPECT_TRUE(agreed);
}

INSTANTIATE_TEST_SUITE_P(Lines, ReplyStreamDifferential,
                         ::testing::Range(0, replystreamcomparison::lineCount));

TEST(ReplyStreamCorpus, EveryRecordedStreamEndsAlike)
{
    const QDir corpus(QStringLiteral(FUZZ_CORPUS_DIR));
    const QStringList names = corpus.entryList(QDir::Files);
    ASSERT_FALSE(names.isEmpty());
    for (const QString& name : names) {
        QFile file(corpus.filePath(name));
        ASSERT_TRUE(file.open(QIODevice::ReadOnly));
        EXPECT_EQ(replystreamcomparison::difference(file.readAll()), QString())
            << name.toStdString();
    }
}
