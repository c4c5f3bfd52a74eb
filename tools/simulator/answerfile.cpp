// SPDX-License-Identifier: MIT
#include "answerfile.h"

#include "answersschema.h"
#include "jsonschema.h"

#include <QElapsedTimer>
#include <QJsonArray>
#include <QJsonObject>

#include <algorithm>
#include <array>
#include <map>
#include <optional>
#include <stdexcept>
#include <variant>

namespace
{

using devicecodec::Framing;
using devicecodec::Head;
using std::chrono::milliseconds;

constexpr unsigned byText = 1U << static_cast<unsigned>(Framing::Text);
constexpr unsigned byBinary = 1U << static_cast<unsigned>(Framing::Binary);
constexpr unsigned byOsd = 1U << static_cast<unsigned>(Framing::Osd);
constexpr unsigned byDevices = byText | byBinary;

constexpr qint64 countLimit = 1000000000;
constexpr int osdDataBegins = 6;
constexpr int osdDataEnds = 2; // bytes before the frame does

// A byte of an on-screen-display frame; less than 0: from its end.
using Index = int;

struct Field {
    const char* name;
    unsigned inCommands; // of these framings
    unsigned inReplies;
    std::variant<quint8 Head::*, quint16 Head::*, Index> place;
};

constexpr std::array<Field, 20> fields{{
    {"head", byText, byText, &Head::head},
    {"addr", byDevices, byDevices, &Head::addr},
    {"aux1", byBinary, 0, &Head::lead},
    {"aux3", byBinary, byBinary, &Head::aux3},
    {"aux4", byBinary, byBinary, &Head::aux4},
    {"aux5", byBinary, byBinary, &Head::aux5},
    {"cmd", byDevices, byDevices, &Head::cmd},
    {"dat1", byDevices, byDevices, &Head::dat1},
    {"dat2", byDevices, byDevices, &Head::dat2},
    {"dat3", byDevices, byDevices, &Head::dat3},
    {"dat4", byDevices, byDevices, &Head::dat4},
    {"ch2", byOsd, 0, 0},
    {"ch3", byOsd, 0, 1},
    {"ch5", byOsd, 0, 2},
    {"ch4", byOsd, 0, 3},
    {"ch7", byOsd, 0, 4},
    {"ch8", byOsd, 0, 5},
    {"ch9", byOsd, 0, -2},
    {"ch10", byOsd, 0, -1},
    {"status", 0, byOsd, 2}, // of the acknowledgement
}};

int valueOf(const Field& field, const DeviceCommand& command)
{
    if (const Index* const index = std::get_if<Index>(&field.place)) {
        const QByteArray& frame = command.block;
        return static_cast<quint8>(frame.at(*index < 0 ? frame.size() + *index : *index));
    }
    if (const auto* const byte = std::get_if<quint8 Head::*>(&field.place)) {
        return command.head.**byte;
    }
    return command.head.*std::get<quint16 Head::*>(field.place);
}

void set(const Field& field, Head& reply, qint64 value)
{
    if (const auto* const byte = std::get_if<quint8 Head::*>(&field.place)) {
        reply.** byte = static_cast<quint8>(value);
    } else if (const auto* const word = std::get_if<quint16 Head::*>(&field.place)) {
        reply.** word = static_cast<quint16>(value);
    }
}

// A number, or where it is found when it is needed.
struct Number {
    qint64 value = 0;
    qint64* counter = nullptr;
    const Field* field = nullptr;

    qint64 of(const DeviceCommand& command) const
    {
        return counter != nullptr ? *counter : field != nullptr ? valueOf(*field, command) : value;
    }
};

struct Condition {
    Number what;
    qint64 from;
    qint64 to;
};

struct Block {
    std::optional<QByteArray> content; // nothing: bytes that count upwards
    int size = 0;                      // of a page; 0: everything
    Number page;

    QByteArray bytes(const DeviceCommand& command) const
    {
        const qint64 begin = page.of(command) * size;
        if (content) {
            return size == 0                 ? *content
                   : begin < content->size() ? content->mid(static_cast<int>(begin), size)
                                             : QByteArray();
        }
        QByteArray counting(size, Qt::Uninitialized);
        for (int i = 0; i < size; ++i) {
            counting[i] = static_cast<char>(begin + i);
        }
        return counting;
    }
};

struct State {
    QString name;
    milliseconds lasts{0}; // 0: until it is changed
    int then = -1;
};

struct Said {
    bool isSilent = false;
    std::vector<std::pair<const Field*, Number>> reply;
    std::optional<Block> block;
    milliseconds delay{0};
    Faults faults;
    std::vector<std::pair<qint64*, Number>> set;
    std::vector<std::pair<qint64*, qint64>> add;
    int then = -1; // -1: the state stays
};

struct Rule {
    std::vector<Condition> conditions;
    int state = -1; // -1: any
    QByteArray beginning;
    qint64 every = 1;
    std::vector<Said> sequence;
    bool loops = false;
    qint64 met = 0; // conditions
    std::size_t next = 0;
};

[[noreturn]] void refuse(const QString& what)
{
    throw std::invalid_argument(what.toStdString());
}

QString at(const char* text)
{
    return QLatin1String(text);
}

QString inside(const QString& place, const QString& key)
{
    return place + QLatin1Char('.') + key;
}

QByteArray hexadecimal(const QJsonValue& value, const QString& place)
{
    const QByteArray digits = value.toString().remove(QLatin1Char(' ')).toLatin1();
    if (digits.size() % 2 != 0) {
        refuse(jsonschema::invalid(place, value, at("hexadecimal digits in pairs, like 00ff10")));
    }
    return QByteArray::fromHex(digits);
}

} // namespace

struct AnswerFile::Rules {
    Link link;
    ReadFile readFile;
    Clock clock;
    std::map<QString, qint64> counters; // whose places stay
    std::vector<State> states;
    int state = -1;
    milliseconds since{0};
    std::vector<Rule> rules;

    void read(const QJsonObject& file);
    void passTime();
    bool meets(const Rule& rule, const DeviceCommand& command) const;
    void take(Said& said, const DeviceCommand& command, Answer& answer);

private:
    unsigned framing() const { return 1U << static_cast<unsigned>(link.framing); }
    void readStates(const QJsonObject& file);
    void readWhen(const QJsonObject& when, const QString& place, Rule& rule);
    Condition readCondition(const QString& key, const QJsonValue& value, const QString& place);
    Rule readRule(const QJsonObject& rule, const QString& place);
    Said readAnswer(const QJsonObject& answer, const QString& place);
    Faults readFaults(const QJsonArray& list, const QString& place) const;
    Block readBlock(const QJsonValue& block, const QString& place);
    int stateCalled(const QJsonValue& name, const QString& place) const;
    qint64* counterCalled(const QString& name, const QString& place);
    const Field* fieldCalled(const QString& name, unsigned Field::*where) const;
    QString names(unsigned Field::*where, bool withCounters) const;
    Number number(const QJsonValue& value, const QString& place);
    static qint64 plain(const QJsonValue& value);
    void setReply(const Said& said, const DeviceCommand& command, Answer& answer) const;
};

const Field* AnswerFile::Rules::fieldCalled(const QString& name, unsigned Field::*where) const
{
    const auto* const found = std::find_if(fields.begin(), fields.end(), [&](const Field& field) {
        return (field.*where & framing()) != 0 && name == QLatin1String(field.name);
    });
    return found == fields.end() ? nullptr : found;
}

QString AnswerFile::Rules::names(unsigned Field::*where, bool withCounters) const
{
    QStringList known;
    for (const Field& field : fields) {
        if ((field.*where & framing()) != 0) {
            known << QLatin1String(field.name);
        }
    }
    if (withCounters) {
        for (const auto& counter : counters) {
            known << counter.first;
        }
    }
    return known.join(QLatin1String(", "));
}

qint64* AnswerFile::Rules::counterCalled(const QString& name, const QString& place)
{
    const auto found = counters.find(name);
    if (found == counters.end()) {
        refuse(
            QStringLiteral("%1: there is no counter \"%2\": add it to counters").arg(place, name));
    }
    return &found->second;
}

int AnswerFile::Rules::stateCalled(const QJsonValue& name, const QString& place) const
{
    if (name.isUndefined()) {
        return -1;
    }
    QStringList known;
    for (const State& one : states) {
        if (one.name == name.toString()) {
            return static_cast<int>(known.size());
        }
        known << one.name;
    }
    refuse(jsonschema::invalid(place, name,
                               known.isEmpty() ? at("one of states, which has none")
                                               : known.join(QLatin1String(", "))));
}

qint64 AnswerFile::Rules::plain(const QJsonValue& value)
{
    return value.isString() ? value.toString().toLongLong(nullptr, 16)
                            : static_cast<qint64>(value.toDouble());
}

Number AnswerFile::Rules::number(const QJsonValue& value, const QString& place)
{
    const QString name = value.toString();
    if (!value.isString() || name.startsWith(QLatin1String("0x"))) {
        return {plain(value), nullptr, nullptr};
    }
    if (const Field* const field = fieldCalled(name, &Field::inCommands)) {
        return {0, nullptr, field};
    }
    const auto counter = counters.find(name);
    if (counter == counters.end()) {
        refuse(jsonschema::invalid(place, value,
                                   at("a number, or one of ") + names(&Field::inCommands, true)));
    }
    return {0, &counter->second, nullptr};
}

void AnswerFile::Rules::readStates(const QJsonObject& file)
{
    const QJsonObject written = file.value(at("states")).toObject();
    for (const QString& name : written.keys()) {
        states.push_back({name});
    }
    for (State& one : states) {
        const QJsonObject object = written.value(one.name).toObject();
        const QString place = inside(at("states"), one.name);
        one.lasts = milliseconds(object.value(at("lasts")).toInt());
        one.then = stateCalled(object.value(at("then")), inside(place, at("then")));
        if ((one.lasts.count() > 0) != (one.then >= 0)) {
            refuse(place + at(": give lasts and then together"));
        }
    }
    state = stateCalled(file.value(at("start")), at("start"));
    if (!states.empty() && state < 0) {
        refuse(at("\"start\" is missing: the state that the device begins in"));
    }
}

void AnswerFile::Rules::readWhen(const QJsonObject& when, const QString& place, Rule& rule)
{
    for (auto member = when.begin(); member != when.end(); ++member) {
        const QString& key = member.key();
        const QString here = inside(place, key);
        if (key == at("state")) {
            rule.state = stateCalled(member.value(), here);
        } else if (key == at("block")) {
            rule.beginning = hexadecimal(member.value(), here);
        } else {
            rule.conditions.push_back(readCondition(key, member.value(), place));
        }
    }
}

Condition AnswerFile::Rules::readCondition(const QString& key, const QJsonValue& value,
                                           const QString& place)
{
    const Field* const field = fieldCalled(key, &Field::inCommands);
    const auto counter = counters.find(key);
    if (field == nullptr && counter == counters.end()) {
        refuse(QStringLiteral("%1: unknown \"%2\" (expected state, block, %3)")
                   .arg(place, key, names(&Field::inCommands, true)));
    }
    const QJsonArray range = value.toArray();
    const Condition condition{{0, field == nullptr ? &counter->second : nullptr, field},
                              plain(range.isEmpty() ? value : range.at(0)),
                              plain(range.isEmpty() ? value : range.at(1))};
    const bool isByte = field != nullptr && !std::holds_alternative<quint16 Head::*>(field->place);
    const qint64 limit = isByte ? 255 : 65535;
    if (condition.from > condition.to || condition.to > limit) {
        refuse(jsonschema::invalid(inside(place, key), value,
                                   QStringLiteral("0 to %1, or two of them: from, to").arg(limit)));
    }
    return condition;
}

// Written as with --fault; without a chance or a count it strikes each time.
Faults AnswerFile::Rules::readFaults(const QJsonArray& list, const QString& place) const
{
    Faults faults;
    for (int i = 0; i < list.size(); ++i) {
        QString text = list.at(i).toString();
        const QString here = place + QStringLiteral("[%1]").arg(i);
        const QString name = text.section(QLatin1Char(':'), 0, 0);
        for (const Fault lasting : {Fault::CloseAfter, Fault::Refuse, Fault::NeverRead}) {
            if (text.startsWith(Faults::name(lasting))) {
                refuse(QStringLiteral("%1: \"%2\" is no fault of an answer: give it as --fault")
                           .arg(here, text));
            }
        }
        if (!text.contains(QLatin1Char('='))) {
            text.insert(name.size(), at("=100%"));
        }
        const QString wrong = faults.parse(text);
        if (!wrong.isEmpty()) {
            refuse(here + at(": ") + wrong);
        }
        const QStringList unfit = faults.unfit(link.faulty);
        if (!unfit.isEmpty()) {
            refuse(QStringLiteral("%1: the link has no %2: leave it out").arg(here, unfit.front()));
        }
    }
    return faults;
}

Block AnswerFile::Rules::readBlock(const QJsonValue& written, const QString& place)
{
    if (link.framing == Framing::Osd) {
        refuse(place + at(": acknowledgements carry none: leave it out"));
    }
    constexpr int limit = 32766;
    Block block;
    QString source = place;
    if (written.isString()) {
        block.content = hexadecimal(written, place);
    } else {
        const QJsonObject object = written.toObject();
        block.size = object.value(at("size")).toInt();
        if (object.contains(at("file"))) {
            source = inside(place, at("file"));
            block.content = readFile(source, object.value(at("file")).toString());
        } else if (block.size == 0) {
            refuse(place + at(": \"file\" or \"size\" is missing"));
        }
        if (object.contains(at("page"))) {
            if (block.size == 0) {
                refuse(place + at(": \"size\" is missing: the bytes of a page"));
            }
            block.page = number(object.value(at("page")), inside(place, at("page")));
        }
    }
    if (block.size == 0 && block.content->size() > limit) {
        refuse(QStringLiteral("%1: %2 bytes are too many for a block (expected 0 to %3)")
                   .arg(source)
                   .arg(block.content->size())
                   .arg(limit));
    }
    return block;
}

Said AnswerFile::Rules::readAnswer(const QJsonObject& answer, const QString& place)
{
    Said said;
    const auto membersOf = [&](const char* key, const auto& take) {
        const QJsonObject object = answer.value(at(key)).toObject();
        for (auto member = object.begin(); member != object.end(); ++member) {
            take(member.key(), member.value(), inside(inside(place, at(key)), member.key()));
        }
    };
    said.isSilent = answer.value(at("reply")).isBool();
    membersOf("reply", [&](const QString& name, const QJsonValue& value, const QString& here) {
        const Field* const field = fieldCalled(name, &Field::inReplies);
        if (field == nullptr) {
            refuse(QStringLiteral("%1: replies of this link do not carry it (expected %2)")
                       .arg(here, names(&Field::inReplies, false)));
        }
        said.reply.emplace_back(field, number(value, here));
    });
    if (answer.contains(at("block"))) {
        said.block = readBlock(answer.value(at("block")), inside(place, at("block")));
        if (said.isSilent) {
            refuse(place + at(".block: there is no reply: leave it out"));
        }
    }
    said.delay = milliseconds(answer.value(at("delay")).toInt());
    said.faults = readFaults(answer.value(at("faults")).toArray(), inside(place, at("faults")));
    membersOf("set", [&](const QString& name, const QJsonValue& value, const QString& here) {
        said.set.emplace_back(counterCalled(name, here), number(value, here));
    });
    membersOf("add", [&](const QString& name, const QJsonValue& value, const QString& here) {
        said.add.emplace_back(counterCalled(name, here), plain(value));
    });
    said.then = stateCalled(answer.value(at("then")), inside(place, at("then")));
    return said;
}

Rule AnswerFile::Rules::readRule(const QJsonObject& written, const QString& place)
{
    Rule rule;
    readWhen(written.value(at("when")).toObject(), inside(place, at("when")), rule);
    rule.every = qMax(1, written.value(at("every")).toInt());
    rule.loops = written.value(at("loop")).toBool();
    const QJsonArray sequence = written.value(at("sequence")).toArray();
    for (int i = 0; i < sequence.size(); ++i) {
        rule.sequence.push_back(
            readAnswer(sequence.at(i).toObject(), place + QStringLiteral(".sequence[%1]").arg(i)));
    }
    if (sequence.isEmpty()) {
        rule.sequence.push_back(readAnswer(written, place));
        if (rule.loops) {
            refuse(place + at(".loop: there is no sequence: leave it out"));
        }
        return rule;
    }
    for (const char* key : {"reply", "block", "delay", "faults", "set", "add", "then"}) {
        if (written.contains(at(key))) {
            refuse(
                QStringLiteral("%1.%2: there is a sequence: write it there").arg(place, at(key)));
        }
    }
    return rule;
}

void AnswerFile::Rules::read(const QJsonObject& file)
{
    const QJsonObject begin = file.value(at("counters")).toObject();
    for (auto counter = begin.begin(); counter != begin.end(); ++counter) {
        const bool isTaken = std::any_of(fields.begin(), fields.end(),
                                         [&](const Field& field) {
                                             return counter.key() == QLatin1String(field.name);
                                         }) ||
                             counter.key() == at("state") || counter.key() == at("block");
        if (isTaken) {
            refuse(QStringLiteral("counters.%1: that is the name of a field: give another one")
                       .arg(counter.key()));
        }
        counters[counter.key()] = plain(counter.value());
    }
    readStates(file);
    const QJsonArray list = file.value(at("rules")).toArray();
    for (int i = 0; i < list.size(); ++i) {
        rules.push_back(readRule(list.at(i).toObject(), QStringLiteral("rules[%1]").arg(i)));
    }
    since = clock();
}

void AnswerFile::Rules::passTime()
{
    const milliseconds now = clock();
    while (state >= 0) {
        const State& present = states[static_cast<std::size_t>(state)];
        if (present.then < 0 || now - since < present.lasts) {
            return;
        }
        since += present.lasts;
        state = present.then;
    }
}

bool AnswerFile::Rules::meets(const Rule& rule, const DeviceCommand& command) const
{
    const QByteArray& whole = command.block;
    const QByteArray block =
        link.framing == Framing::Osd
            ? whole.mid(osdDataBegins, whole.size() - osdDataBegins - osdDataEnds)
            : whole;
    return (rule.state < 0 || rule.state == state) && block.startsWith(rule.beginning) &&
           std::all_of(rule.conditions.begin(), rule.conditions.end(),
                       [&command](const Condition& condition) {
                           const qint64 value = condition.what.of(command);
                           return value >= condition.from && value <= condition.to;
                       });
}

void AnswerFile::Rules::setReply(const Said& said, const DeviceCommand& command,
                                 Answer& answer) const
{
    auto& pieces = answer.pieces;
    if (link.framing == Framing::Osd) {
        for (const auto& [field, value] : said.reply) {
            pieces.front().bytes[std::get<Index>(field->place)] =
                static_cast<char>(value.of(command));
        }
        return;
    }
    std::optional<int> length;
    if (said.block) {
        QByteArray block = said.block->bytes(command);
        if (!block.isEmpty() && link.faulty == Faulty::Stream) {
            block.append(static_cast<char>(devicecodec::checksum(block)));
        }
        length = static_cast<int>(block.size());
        pieces.resize(1);
        if (!block.isEmpty()) {
            pieces.push_back({block, {}});
        }
    } else if (pieces.size() > 1) {
        length = static_cast<int>(pieces[1].bytes.size());
    }
    Head reply = devicecodec::replyTo(command.head, length, link.framing);
    for (const auto& [field, value] : said.reply) {
        set(*field, reply, value.of(command));
    }
    pieces.front().bytes = devicecodec::encodeReply(reply, link.framing);
}

void AnswerFile::Rules::take(Said& said, const DeviceCommand& command, Answer& answer)
{
    if (said.isSilent) {
        answer.pieces.clear();
    } else {
        setReply(said, command, answer);
        answer.pieces.front().after = said.delay;
    }
    answer.faults = &said.faults;
    for (const auto& [counter, value] : said.set) {
        *counter = value.of(command);
    }
    for (const auto& [counter, difference] : said.add) {
        *counter = qBound(qint64(0), *counter + difference, countLimit);
    }
    if (said.then >= 0) {
        state = said.then;
        since = clock();
    }
}

AnswerFile::AnswerFile(const QByteArray& json, const Link& link, const ReadFile& readFile,
                       Clock clock)
{
    if (!clock) {
        QElapsedTimer timer;
        timer.start();
        clock = [timer] { return milliseconds(timer.elapsed()); };
    }
    rules.reset(new Rules{link, readFile, std::move(clock), {}, {}, -1, {}, {}});
    rules->read(jsonschema::parsed(json, AnswerFile::schema()));
}

AnswerFile::~AnswerFile() = default;

void AnswerFile::answer(const DeviceCommand& command, Answer& answer)
{
    rules->passTime();
    for (Rule& rule : rules->rules) {
        if (rules->meets(rule, command) && ++rule.met % rule.every == 0) {
            Said& said = rule.sequence[rule.next];
            const bool isLast = rule.next + 1 == rule.sequence.size();
            rule.next = !isLast ? rule.next + 1 : rule.loops ? 0 : rule.next;
            rules->take(said, command, answer);
            return;
        }
    }
}

QByteArray AnswerFile::schema()
{
    return answersSchema;
}
