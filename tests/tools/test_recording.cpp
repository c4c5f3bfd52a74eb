// SPDX-License-Identifier: MIT
#include "recording.h"

#include <gtest/gtest.h>

namespace
{

using What = CaptureRecord::What;
using std::chrono::milliseconds;

const QByteArray plain = QByteArrayLiteral("<T0000100000000010>");
const QByteArray withBlock = QByteArrayLiteral("<T00009a000003009d>");

CaptureRecord at(int ms, What what, const QByteArray& bytes, const char* link = "serial://x")
{
    CaptureRecord record;
    record.time = qint64{1700000000} * 1000000000 + qint64{ms} * 1000000;
    record.link = link;
    record.medium = CaptureRecord::mediumOf(link);
    record.what = what;
    record.bytes = bytes;
    return record;
}

CaptureRecord datagram(int ms, What what, const QByteArray& bytes, const char* device = "10.0.0.5")
{
    CaptureRecord record = at(ms, what, bytes, "udp://10.0.0.5");
    record.device = {QHostAddress(QLatin1String(device)), 1000};
    return record;
}

} // namespace

TEST(Recording, PutsWhatCameBehindItsCommand)
{
    const Recording recording = Recording::of(
        {at(0, What::Received, "before"), at(5, What::Opened, {}), at(10, What::Sent, plain),
         at(30, What::Received, "<F"), at(35, What::Received, "rest"), at(110, What::Sent, plain),
         at(115, What::Lost, {}), at(210, What::Sent, plain), at(260, What::Received, "last")});
    ASSERT_EQ(recording.steps.size(), 3U);
    EXPECT_EQ(recording.link, "serial://x");
    EXPECT_EQ(recording.noise, 0);
    EXPECT_EQ(recording.steps[0].command.head.cmd, 0x10);
    EXPECT_EQ(recording.steps[0].at, milliseconds(0));
    ASSERT_EQ(recording.steps[0].answer.size(), 2U);
    EXPECT_EQ(recording.steps[0].answer[0].after, milliseconds(20));
    EXPECT_EQ(recording.steps[0].answer[1].after, milliseconds(5));
    EXPECT_EQ(recording.steps[0].answerBytes(), "<Frest");
    EXPECT_EQ(recording.steps[1].at, milliseconds(100));
    EXPECT_TRUE(recording.steps[1].answer.empty());
    EXPECT_EQ(recording.steps[2].at, milliseconds(200));
    EXPECT_EQ(recording.steps[2].answer[0].after, milliseconds(50));
}

TEST(Recording, JoinsTheWritesOfACommand)
{
    const Recording recording = Recording::of(
        {at(0, What::Sent, withBlock.left(10)), at(1, What::Sent, withBlock.mid(10)),
         at(2, What::Sent, "ab"), at(3, What::Sent, "c" + plain), at(9, What::Received, "answer")});
    ASSERT_EQ(recording.steps.size(), 2U);
    EXPECT_EQ(recording.steps[0].command.block, "abc");
    EXPECT_TRUE(recording.steps[0].answer.empty());
    EXPECT_EQ(recording.steps[1].answerBytes(), "answer");
}

TEST(Recording, EndsACommandThatAnnouncedMore)
{
    const Recording recording =
        Recording::of({at(0, What::Sent, withBlock), at(5, What::Received, "one"),
                       at(100, What::Sent, plain), at(105, What::Received, "two"),
                       at(200, What::Sent, withBlock), at(201, What::Received, "x")});
    ASSERT_EQ(recording.steps.size(), 3U);
    EXPECT_EQ(recording.steps[0].answerBytes(), "one");
    EXPECT_TRUE(recording.steps[0].command.block.isEmpty());
    EXPECT_EQ(recording.steps[1].at, milliseconds(100));
    EXPECT_EQ(recording.steps[1].answerBytes(), "two");
    EXPECT_EQ(recording.steps[2].answerBytes(), "x");
}

TEST(Recording, LeavesOutWhatIsNoCommand)
{
    const Recording recording = Recording::of(
        {at(0, What::Sent, "noise"), at(1, What::Received, "?"), at(2, What::Sent, plain)});
    ASSERT_EQ(recording.steps.size(), 1U);
    EXPECT_EQ(recording.noise, 5);
    EXPECT_TRUE(recording.steps[0].answer.empty());
    EXPECT_TRUE(Recording::of({}).steps.empty());
    EXPECT_TRUE(Recording::of({at(0, What::Received, "<F")}).steps.empty());
}

TEST(Recording, TakesOnlyTheDevicesOwnDatagrams)
{
    const Recording recording = Recording::of(
        {datagram(0, What::Sent, plain), datagram(1, What::Received, "other", "10.0.0.6"),
         datagram(2, What::Received, "own"), datagram(3, What::Received, "block")});
    ASSERT_EQ(recording.steps.size(), 1U);
    ASSERT_EQ(recording.steps[0].answer.size(), 2U) << "each datagram by itself";
    EXPECT_EQ(recording.steps[0].answerBytes(), "ownblock");
}

TEST(Recording, CutsFramesOfOnScreenDisplaysByTime)
{
    const Recording recording =
        Recording::of({at(0, What::Sent, "12345678", "osd://10.0.0.5:10001"),
                       at(0, What::Sent, "and data", "osd://10.0.0.5:10001"),
                       at(1, What::Sent, "abcdefgh", "osd://10.0.0.5:10001")});
    EXPECT_EQ(recording.fields, FieldSet::OsdFrame);
    ASSERT_EQ(recording.steps.size(), 2U);
    EXPECT_EQ(recording.steps[0].command.block, "12345678and data");
    EXPECT_EQ(recording.steps[1].command.block, "abcdefgh");
}

TEST(RecordedAnswers, ComeInTurn)
{
    const Recording recording =
        Recording::of({at(0, What::Sent, plain), at(1, What::Received, "first"),
                       at(50, What::Sent, withBlock + "abc"), at(51, What::Received, "other"),
                       at(100, What::Sent, plain), at(120, What::Received, "second")});
    RecordedAnswers answers(recording);
    const auto answerTo = [&answers](const DeviceCommand& command) {
        Answer answer;
        answer.pieces.push_back({"echo", {}});
        answers.answer(command, answer);
        return answer.pieces;
    };
    EXPECT_EQ(answerTo(recording.steps[0].command).front().bytes, "first");
    const auto second = answerTo(recording.steps[0].command);
    EXPECT_EQ(second.front().bytes, "second");
    EXPECT_EQ(second.front().after, milliseconds(20));
    EXPECT_EQ(answerTo(recording.steps[0].command).front().bytes, "first") << "and again";
    EXPECT_EQ(answerTo(recording.steps[1].command).front().bytes, "other");
    DeviceCommand unknown = recording.steps[1].command;
    unknown.block = "abd";
    EXPECT_TRUE(answerTo(unknown).empty());
}
