// SPDX-License-Identifier: MIT
#include "answerexercise.h"
#include "jsonschema.h"

#include <gtest/gtest.h>

#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QProcess>
#include <QTemporaryDir>

namespace
{

using answerexercise::command;
using answerexercise::Line;
using devicecodec::Framing;

const Line udp = answerexercise::lines()[0];
const Line serial = answerexercise::lines()[1];
const Line vela = answerexercise::lines()[2];
const Line osd = answerexercise::lines()[3];

QByteArray contentOf(const QString& path)
{
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::ReadOnly)) << path.toStdString();
    return file.readAll();
}

QByteArray rules(const QByteArray& list)
{
    return "{\"rules\": [" + list + "]}";
}

QString refusal(const QByteArray& answers, const Line& line = udp)
{
    try {
        answerexercise::device(answers, line);
        return {};
    } catch (const std::invalid_argument& wrong) {
        return QString::fromUtf8(wrong.what());
    }
}

Exchange exchange(SimulatedDevice& device, const QByteArray& bytes)
{
    auto exchanges = device.receive(bytes);
    for (const Exchange& rest : device.settle()) {
        exchanges.push_back(rest);
    }
    EXPECT_EQ(exchanges.size(), 1U);
    return exchanges.empty() ? Exchange() : exchanges.front();
}

// The pieces of an answer, in hexadecimal: the body of a text reply, a block as it is.
QStringList said(const Exchange& exchange)
{
    QStringList pieces;
    for (const Emission& emission : exchange.answer) {
        const QByteArray& bytes = emission.bytes;
        pieces << QString::fromLatin1(bytes.startsWith("<F") ? bytes.mid(2, 14) : bytes.toHex());
    }
    return pieces;
}

/// A device with these answers, and a host.
struct Talk {
    Talk(const QByteArray& answers, const Line& chosen)
        : line(chosen), device(answerexercise::device(answers, chosen))
    {
    }

    Exchange with(int code, int subCode = 0, int dat2 = 0)
    {
        return exchange(device, command(line.link.framing, code, subCode, dat2));
    }
    QStringList on(int code, int subCode = 0, int dat2 = 0)
    {
        return said(with(code, subCode, dat2));
    }

    Line line;
    SimulatedDevice device;
};

QStringList words(const char* text)
{
    return QString::fromLatin1(text).split(QLatin1Char(' '), Qt::SkipEmptyParts);
}

TEST(AnswerFile, LeavesWhatMeetsNoRule)
{
    Talk talk(rules(R"({"when": {"cmd": "0x10", "dat1": 2}, "reply": {"dat2": 9}})"), udp);
    EXPECT_EQ(talk.on(0x10, 1), words("5a011001000000"));
    EXPECT_EQ(talk.on(0x11, 2), words("5a011102000000"));
    EXPECT_EQ(talk.on(0x10, 2), words("5a011002090000"));
    EXPECT_EQ(talk.on(0x8b, 5).size(), 2) << "the kind has its block";
}

TEST(AnswerFile, TheFirstRuleThatIsMetAnswers)
{
    Talk talk(rules(R"({"when": {"cmd": [16, 18]}, "reply": {"dat1": 1}},
                       {"when": {"cmd": ["0x11", "0x13"]}, "reply": {"dat1": 2}})"),
              udp);
    EXPECT_EQ(talk.on(0x0f), words("5a010f00000000"));
    EXPECT_EQ(talk.on(0x10), words("5a011001000000"));
    EXPECT_EQ(talk.on(0x12), words("5a011201000000"));
    EXPECT_EQ(talk.on(0x13), words("5a011302000000"));
    EXPECT_EQ(talk.on(0x14), words("5a011400000000"));
}

TEST(AnswerFile, AReplyIsTheCommandWithOtherFields)
{
    Talk talk(rules(R"({"reply": {"head": 1, "addr": "0x02", "cmd": "dat1", "dat1": "cmd",
                                  "dat2": 255, "dat3": 4, "dat4": 5}})"),
              udp);
    EXPECT_EQ(talk.on(0x10, 0x20), words("01022010ff0405"));
    Talk binary(rules(R"({"reply": {"addr": 7, "aux3": 8, "aux4": "0x1234", "aux5": "aux4"}})"),
                vela);
    EXPECT_EQ(binary.with(0x31).answer.at(0).bytes.left(10).toHex(), "f11f0708123403040000");
}

TEST(AnswerFile, ABlockIsAnnouncedAndHasItsChecksumOnAStream)
{
    const QByteArray block = rules(R"({"block": "01 02ff"})");
    EXPECT_EQ(Talk(block, udp).on(0x79, 1), words("5a017901000300 0102ff"));
    EXPECT_EQ(Talk(block, serial).on(0x79, 1), words("5a017901000400 0102ff02"));
    const Exchange binary = Talk(block, vela).with(0x31);
    ASSERT_EQ(binary.answer.size(), 2U);
    EXPECT_EQ(binary.answer[0].bytes.mid(8, 2).toHex(), "0004");
    EXPECT_EQ(binary.answer[1].bytes.toHex(), "0102ff02");
    EXPECT_EQ(Talk(rules(R"({"block": ""})"), serial).on(0x8b, 5), words("5a018b05000000"));
    EXPECT_EQ(Talk(rules(R"({"block": "0102", "reply": {"dat3": 9}})"), udp).on(0x79, 1),
              words("5a017901000900 0102"));
    EXPECT_EQ(Talk(rules(R"({"reply": {"dat2": 1}})"), udp).on(0x8b, 5).value(0),
              words("5a018b05019100").value(0))
        << "the block that the kind has is announced, too";
}

TEST(AnswerFile, ABlockMayBeAPage)
{
    Talk counting(rules(R"({"block": {"size": 3, "page": "dat2"}})"), udp);
    EXPECT_EQ(counting.on(0x79, 1, 0).value(1).toStdString(), "000102");
    EXPECT_EQ(counting.on(0x79, 1, 2).value(1).toStdString(), "060708");
    EXPECT_EQ(counting.on(0x79, 1, 100).value(1).toStdString(), "2c2d2e");
    Talk file(rules(R"({"block": {"file": "any", "size": 150, "page": "dat2"}})"), udp);
    EXPECT_EQ(file.with(0x79, 1, 0).answer.at(1).bytes, QByteArray(150, 'f'));
    EXPECT_EQ(file.with(0x79, 1, 1).answer.at(1).bytes, QByteArray(50, 'f'));
    EXPECT_EQ(file.on(0x79, 1, 2), words("5a017901020000"));
    EXPECT_EQ(Talk(rules(R"({"block": {"file": "any"}})"), udp).with(0x79, 1).answer.at(1).bytes,
              QByteArray(200, 'f'));
}

TEST(AnswerFile, CountersCountWhatIsAnswered)
{
    Talk talk(R"({"counters": {"n": 7}, "rules": [
                    {"when": {"cmd": 1}, "set": {"n": "dat2"}, "add": {"n": -3}},
                    {"when": {"cmd": 2, "n": [0, 8]}, "reply": {"dat1": "n"}, "add": {"n": 1}}]})",
              udp);
    EXPECT_EQ(talk.on(2), words("5a010207000000"));
    EXPECT_EQ(talk.on(2), words("5a010208000000"));
    EXPECT_EQ(talk.on(2), words("5a010200000000")) << "9 is past the range";
    EXPECT_EQ(talk.on(1, 0, 5), words("5a010100050000"));
    EXPECT_EQ(talk.on(2), words("5a010202000000"));
    talk.on(1, 0, 1);
    EXPECT_EQ(talk.on(2), words("5a010200000000")) << "no counter is less than 0";
    EXPECT_EQ(talk.on(2), words("5a010201000000"));
}

TEST(AnswerFile, ACounterHasAnEnd)
{
    Talk talk(R"({"counters": {"n": 999999999}, "rules": [{"reply": {"dat1": "n"},
                  "add": {"n": 2}}]})",
              udp);
    EXPECT_EQ(talk.on(1), words("5a0101ff000000"));
    EXPECT_EQ(talk.on(1), words("5a010100000000"));
    EXPECT_EQ(talk.on(1), words("5a010100000000"));
}

TEST(AnswerFile, AnswersInSequence)
{
    const QByteArray answers = R"("when": {"cmd": 1}, "sequence": [
        {"reply": {"dat1": 1}}, {"reply": false}, {"reply": {"dat1": 3}}])";
    Talk stays(rules("{" + answers + "}"), udp);
    Talk loops(rules("{" + answers + ", \"loop\": true}"), udp);
    for (const char* expected : {"5a010101000000", "", "5a010103000000"}) {
        EXPECT_EQ(stays.on(1), words(expected));
        EXPECT_EQ(stays.on(2).size(), 1) << "what meets another rule does not count";
        EXPECT_EQ(loops.on(1), words(expected));
    }
    EXPECT_EQ(stays.on(1), words("5a010103000000"));
    EXPECT_EQ(loops.on(1), words("5a010101000000"));
}

TEST(AnswerFile, EveryNthCommandMeetsARule)
{
    Talk talk(rules(R"({"when": {"cmd": 1}, "every": 3, "reply": false},
                       {"when": {"cmd": 1}, "reply": {"dat1": 9}})"),
              udp);
    for (int i = 1; i <= 9; ++i) {
        EXPECT_EQ(talk.on(1), i % 3 == 0 ? QStringList() : words("5a010109000000")) << i;
        talk.on(2);
    }
}

// The clock of the exercise goes on by 7 ms a command, and starts at 7.
TEST(AnswerFile, StatesFollowCommandsAndTime)
{
    Talk talk(R"({"states": {"a": {"lasts": 20, "then": "b"}, "b": {"lasts": 15, "then": "c"},
                             "c": {}}, "start": "a", "rules": [
                    {"when": {"state": "a"}, "reply": {"dat1": 1}},
                    {"when": {"state": "b"}, "reply": {"dat1": 2}},
                    {"when": {"cmd": 3}, "reply": {"dat1": 3}, "then": "b"}]})",
              udp);
    EXPECT_EQ(talk.on(1), words("5a010101000000")) << "after 7 ms";
    EXPECT_EQ(talk.on(1), words("5a010101000000")) << "after 14 ms";
    EXPECT_EQ(talk.on(1), words("5a010102000000")) << "after 21 ms";
    EXPECT_EQ(talk.on(1), words("5a010102000000")) << "after 28 ms";
    EXPECT_EQ(talk.on(1), words("5a010100000000")) << "after 35 ms";
    EXPECT_EQ(talk.on(3), words("5a010303000000")) << "the state is left with the answer";
    EXPECT_EQ(talk.on(1), words("5a010102000000"));
}

TEST(AnswerFile, AnswersByWhatTheBlockBeginsWith)
{
    Talk talk(rules(R"({"when": {"block": "ff 10"}, "reply": {"dat2": 1}})"), serial);
    const auto withBlock = [&talk](const char* block) {
        QByteArray body = QByteArray::fromHex("5a019a01000300");
        body.append(static_cast<char>(devicecodec::checksum(body)));
        return said(exchange(talk.device, "<T" + body.toHex() + ">" + QByteArray::fromHex(block)));
    };
    EXPECT_EQ(withBlock("ff1000"), words("5a019a01010300"));
    EXPECT_EQ(withBlock("00ff10"), words("5a019a01000300"));
}

TEST(AnswerFile, DelaysAndSpoilsItsAnswers)
{
    Talk talk(rules(R"({"when": {"cmd": 1}, "delay": 250, "faults": ["garbage=2:5", "flood:3"]},
                       {"when": {"cmd": 2}, "faults": ["wrong-checksum", "drop=1"]})"),
              udp);
    for (int i = 0; i < 3; ++i) {
        const Exchange late = talk.with(1);
        ASSERT_EQ(late.answer.size(), i < 2 ? 2U : 1U) << i;
        EXPECT_EQ(late.answer.back().after.count(), 250);
        EXPECT_EQ(late.times, 3);
    }
    EXPECT_EQ(talk.with(2).answer.size(), 0U);
    EXPECT_EQ(talk.with(2).answer.at(0).bytes, "<F5a01020000000" + QByteArray("05e>"));
    EXPECT_TRUE(talk.with(3).faults.empty()) << "those of a rule are its own";
    EXPECT_EQ(talk.with(3).times, 1);
}

TEST(AnswerFile, HangsUpWithoutAnAnswerOrAfterItsDelay)
{
    const Exchange silent =
        Talk(rules(R"({"reply": false, "faults": ["hang-up"]})"), serial).with(1);
    EXPECT_TRUE(silent.answer.empty());
    EXPECT_EQ(silent.faults, std::vector<Fault>{Fault::HangUp});
    const Exchange late = Talk(rules(R"({"delay": 9, "faults": ["hang-up"]})"), serial).with(1);
    ASSERT_EQ(late.answer.size(), 1U);
    EXPECT_EQ(late.answer[0].bytes.size(), 9);
    EXPECT_EQ(late.answer[0].after.count(), 9);
}

TEST(AnswerFile, AnswersForAnOnScreenDisplay)
{
    Talk talk(rules(R"({"when": {"ch2": 1, "ch10": [5, 9]}, "reply": {"status": "ch3"}},
                       {"when": {"ch2": 2}, "reply": false},
                       {"when": {"ch2": 3}, "faults": ["reset"]})"),
              osd);
    EXPECT_EQ(talk.on(1, 0x77, 5), words("4f4b77"));
    EXPECT_EQ(talk.on(1, 0x77, 4), words("4f4b01"));
    EXPECT_EQ(talk.on(2), QStringList());
    EXPECT_EQ(talk.with(3).faults, std::vector<Fault>{Fault::Reset});
}

TEST(AnswerFile, KnowsEveryByteOfAnOnScreenDisplaysFrame)
{
    const QByteArray frame = QByteArray::fromHex("210304050708aabb090a");
    const auto status = [&frame](const char* when) {
        SimulatedDevice::Settings settings;
        settings.framing = Framing::Osd;
        settings.medium = Medium::Stream;
        settings.dataLength = 2;
        settings.answers = std::make_shared<AnswerFile>(
            rules("{\"reply\": {\"status\": 1}, \"when\": {" + QByteArray(when) + "}}"), osd.link,
            AnswerFile::ReadFile());
        SimulatedDevice device(settings);
        return said(exchange(device, frame));
    };
    for (const char* condition :
         {R"("ch2": "0x21")", R"("ch3": 3)", R"("ch5": 4)", R"("ch4": 5)", R"("ch7": 7)",
          R"("ch8": 8)", R"("ch9": 9)", R"("ch10": 10)", R"("block": "aabb")"}) {
        EXPECT_EQ(status(condition), words("4f4b01")) << condition;
    }
    EXPECT_EQ(status(R"("block": "aabb09")"), words("4f4b21")) << "the data ends before";
}

TEST(AnswerFile, SaysWhatIsWrongAndWhere)
{
    const struct {
        const char* rule;
        const char* refusal;
    } cases[] = {
        {R"({"reply": {"dat1": "300"}})",
         "rules[0].reply.dat1: invalid value \"300\" (expected 0 to 255)"},
        {R"({}, {}, {"reply": {"dat1": 256}})",
         "rules[2].reply.dat1: invalid value \"256\" (expected 0 to 255)"},
        {R"({"reply": {"dat1": 1.5}})", "rules[0].reply.dat1: invalid value \"1.5\" (expected 0 to "
                                        "255)"},
        {R"({"reply": {"dat9": 1}})", "rules[0].reply: unknown \"dat9\" (expected addr, aux3, "
                                      "aux4, aux5, cmd, dat1, dat2, dat3, "
                                      "dat4, head, status)"},
        {R"({"reply": true})",
         "rules[0].reply: invalid value \"true\" (expected false, or an object "
         "with the fields that differ from the command's)"},
        {R"({"reply": {"aux3": 1}})", "rules[0].reply.aux3: replies of this link do not carry it "
                                      "(expected head, addr, cmd, dat1, dat2, dat3, dat4)"},
        {R"({"reply": {"dat1": "pages"}})",
         "rules[0].reply.dat1: invalid value \"pages\" (expected a number, or one of head, addr, "
         "cmd, dat1, dat2, dat3, dat4)"},
        {R"({"reply": false, "block": ""})", "rules[0].block: there is no reply: leave it out"},
        {R"({"when": {"cmd": 256}})",
         "rules[0].when.cmd: invalid value \"256\" (expected 0 to 255, or two of them: from, to)"},
        {R"({"when": {"cmd": [2, 1]}})",
         "rules[0].when.cmd: invalid value \"[2,1]\" (expected 0 to "
         "255, or two of them: from, to)"},
        {R"({"when": {"cmd": [1]}})", "rules[0].when.cmd: invalid value \"[1]\" (expected 0 to "
                                      "65535, or two of them: from, to)"},
        {R"({"when": {"cmd": [1, -1]}})", "rules[0].when.cmd[1]: invalid value \"-1\" (expected 0 "
                                          "to 65535, or hexadecimal like 0x8b "
                                          "in quotes)"},
        {R"({"when": {"cdm": 1}})", "rules[0].when: unknown \"cdm\" (expected state, block, head, "
                                    "addr, cmd, dat1, dat2, dat3, dat4)"},
        {R"({"when": {"state": "on"}})",
         "rules[0].when.state: invalid value \"on\" (expected one of "
         "states, which has none)"},
        {R"({"wenn": {}})", "rules[0]: unknown \"wenn\" (expected $comment, add, block, delay, "
                            "every, faults, loop, reply, sequence, set, then, when)"},
        {R"({"block": "0g"})", "rules[0].block: invalid value \"0g\" (expected hexadecimal digits, "
                               "or an object with file or size)"},
        {R"({"block": "0 01"})", "rules[0].block: invalid value \"0 01\" (expected hexadecimal "
                                 "digits in pairs, like 00ff10)"},
        {R"({"block": {"size": 0}})",
         "rules[0].block.size: invalid value \"0\" (expected 1 to 32766 bytes)"},
        {R"({"block": {}})", "rules[0].block: \"file\" or \"size\" is missing"},
        {R"({"block": {"file": "x", "page": 1}})",
         "rules[0].block: \"size\" is missing: the bytes of a page"},
        {R"({"delay": -1})",
         "rules[0].delay: invalid value \"-1\" (expected 0 to 3600000 milliseconds)"},
        {R"({"faults": ["drop", "split"]})",
         "rules[0].faults[1]: the link has no split: leave it out"},
        {R"({"faults": ["drop:5"]})", "rules[0].faults[0]: invalid fault \"drop=100%:5\" (expected "
                                      "no amount)"},
        {R"({"faults": ["refuse"]})",
         "rules[0].faults[0]: \"refuse\" is no fault of an answer: give it as --fault"},
        {R"({"set": {"n": 1}})", "rules[0].set.n: there is no counter \"n\": add it to counters"},
        {R"({"sequence": []})", "rules[0].sequence: invalid value \"[]\" (expected a list of "
                                "answers)"},
        {R"({"sequence": [{}], "delay": 1})",
         "rules[0].delay: there is a sequence: write it there"},
        {R"({"loop": true})", "rules[0].loop: there is no sequence: leave it out"},
        {R"({"sequence": [{}, {"then": "on"}]})", "rules[0].sequence[1].then: invalid value \"on\" "
                                                  "(expected one of states, which has none)"},
    };
    for (const auto& one : cases) {
        EXPECT_EQ(refusal(rules(one.rule)).toStdString(), one.refusal) << one.rule;
    }
    EXPECT_EQ(refusal(rules(R"({"block": "00"})"), osd).toStdString(),
              "rules[0].block: acknowledgements carry none: leave it out");
}

TEST(AnswerFile, SaysWhatIsWrongWithTheWhole)
{
    const struct {
        const char* file;
        const char* refusal;
    } cases[] = {
        {"[]", "invalid value \"[]\" (expected an object with rules)"},
        {"{}", "\"rules\" is missing"},
        {R"({"rules": {}})", "rules: invalid value \"{}\" (expected a list of rules)"},
        {R"({"rules": [], "states": {"a": {}, "b": {}}})",
         "\"start\" is missing: the state that the device begins in"},
        {R"({"rules": [], "states": {"a": {}, "b": {}}, "start": "c"})",
         "start: invalid value \"c\" (expected a, b)"},
        {R"({"rules": [], "states": {"a": {"lasts": 10}}, "start": "a"})",
         "states.a: give lasts and then together"},
        {R"({"rules": [], "states": {"a": {"lasts": 9}}, "start": "a"})",
         "states.a.lasts: invalid value \"9\" (expected 10 to 3600000 milliseconds)"},
        {R"({"rules": [], "counters": {"dat2": 0}})",
         "counters.dat2: that is the name of a field: give another one"},
        {R"({"rules": [], "counters": {"n": "0123456789012345678901234567890123456789+"}})",
         "counters.n: invalid value \"0123456789012345678901234567890123456789...\" (expected 0 to "
         "1000000000)"},
    };
    for (const auto& one : cases) {
        EXPECT_EQ(refusal(one.file).toStdString(), one.refusal) << one.file;
    }
}

TEST(AnswerFile, SaysWhereItIsNoJson)
{
    const QString number = refusal("{\"rules\": [\n  {\"when\": {\"cmd\": 0x10}}\n]}");
    EXPECT_TRUE(number.startsWith(QStringLiteral("line 2, column 2"))) << number.toStdString();
    EXPECT_TRUE(number.endsWith(QStringLiteral("; hexadecimal goes in quotes, like \"0x8b\"")))
        << number.toStdString();
    const QString nothing = refusal("");
    EXPECT_TRUE(nothing.startsWith(QStringLiteral("line 1, column 1: "))) << nothing.toStdString();
    EXPECT_FALSE(nothing.contains(QStringLiteral("hexadecimal")));
}

TEST(AnswerFile, ALongBlockIsRefused)
{
    const auto readFile = [](const QString& place, const QString& path) {
        EXPECT_EQ(place.toStdString(), "rules[0].block.file");
        EXPECT_EQ(path.toStdString(), "image");
        return QByteArray(32767, 'x');
    };
    const QByteArray page = rules(R"({"block": {"file": "image", "size": 32766}})");
    EXPECT_NO_THROW(AnswerFile(page, udp.link, readFile));
    EXPECT_THROW(AnswerFile(rules(R"({"block": {"file": "image"}})"), udp.link, readFile),
                 std::invalid_argument);
}

TEST(AnswerFile, TakesTheCorpusOfItsFuzzTarget)
{
    const QDir corpus(QStringLiteral(ANSWERS_CORPUS));
    const QStringList names = corpus.entryList(QDir::Files);
    EXPECT_GE(names.size(), 15);
    for (const QString& name : names) {
        const int taken = answerexercise::run(contentOf(corpus.filePath(name)));
        EXPECT_EQ(taken == 0,
                  name.startsWith(QLatin1String("bad-")) || name == QLatin1String("no-object"))
            << name.toStdString();
    }
}

// Every value of a document once replaced by each of some others, and once left out.
void addVariants(const QJsonValue& value, const std::function<void(const QJsonValue&)>& add)
{
    static const QJsonArray others = QJsonDocument::fromJson(
                                         R"(["", "0x100", "300", "page", "00 ff", -1, 0, 1, 9, 256,
             1.5, 65536, 32767, 3600001, true, false, null, [1, 2], [1, 2, 3], {}])")
                                         .array();
    for (const QJsonValue other : others) {
        add(other);
    }
    if (value.isArray()) {
        for (int i = 0; i < value.toArray().size(); ++i) {
            addVariants(value.toArray().at(i), [&](const QJsonValue& other) {
                QJsonArray changed = value.toArray();
                changed[i] = other;
                add(changed);
            });
        }
    } else if (value.isObject()) {
        for (const QString& key : value.toObject().keys()) {
            QJsonObject without = value.toObject();
            without.remove(key);
            add(without);
            without.insert(key + QLatin1Char('x'), value.toObject().value(key));
            add(without);
            addVariants(value.toObject().value(key), [&](const QJsonValue& other) {
                QJsonObject changed = value.toObject();
                changed[key] = other;
                add(changed);
            });
        }
    }
}

TEST(AnswerSchema, IsReadAsAnotherImplementationReadsIt)
{
    const QByteArray written = contentOf(QStringLiteral(ANSWERS_EXAMPLES "/answers.schema.json"));
    EXPECT_EQ(AnswerFile::schema(), written)
        << "the one that is installed is the one that is built in";
    const QJsonObject schema = QJsonDocument::fromJson(written).object();
    QJsonArray documents;
    for (const char* name : {"slow-boot", "pages", "failing-update"}) {
        const QJsonObject example =
            QJsonDocument::fromJson(
                contentOf(QStringLiteral(ANSWERS_EXAMPLES "/%1.json").arg(QLatin1String(name))))
                .object();
        documents.append(example);
        addVariants(example, [&documents](const QJsonValue& one) { documents.append(one); });
    }
    const QTemporaryDir directory;
    QFile file(directory.filePath(QStringLiteral("documents")));
    ASSERT_TRUE(file.open(QIODevice::WriteOnly));
    file.write(QJsonDocument(documents).toJson(QJsonDocument::Compact));
    file.close();
    QProcess other;
    other.start(QStringLiteral(VALIDATOR),
                {QStringLiteral(ANSWERS_EXAMPLES "/answers.schema.json"), file.fileName()});
    ASSERT_TRUE(other.waitForFinished(500000)) << other.errorString().toStdString();
    const QByteArray output = other.readAllStandardOutput();
    if (other.exitCode() == 77) {
        GTEST_SKIP() << output.constData();
    }
    const QJsonArray verdicts = QJsonDocument::fromJson(output).array();
    ASSERT_EQ(verdicts.size(), documents.size()) << other.readAllStandardError().constData();
    int valid = 0;
    for (int i = 0; i < documents.size(); ++i) {
        valid += verdicts.at(i).toBool() ? 1 : 0;
        EXPECT_EQ(jsonschema::mismatch(schema, documents.at(i)).isEmpty(), verdicts.at(i).toBool())
            << QJsonDocument(QJsonArray{documents.at(i)})
                   .toJson(QJsonDocument::Compact)
                   .constData();
    }
    EXPECT_GT(valid, 100);
    EXPECT_GT(documents.size() - valid, 1000);
}

} // namespace
