// SPDX-License-Identifier: MIT
#include "faults.h"

#include "decimal.h"

#include <QRegularExpression>

#include <limits>

namespace
{

constexpr auto onDatagrams = static_cast<unsigned>(Faulty::Datagrams);
constexpr auto onStreams = static_cast<unsigned>(Faulty::Stream);
constexpr auto byEndpoints = static_cast<unsigned>(Faulty::Endpoint);
constexpr unsigned byDevices = onDatagrams | onStreams;
constexpr unsigned byAll = byDevices | byEndpoints;

struct Row {
    Fault fault;
    const char* name;
    int defaultAmount; // 0: takes none
    int mostAmount;
    const char* help;
    unsigned by = byDevices;
    bool lasting = false;
};

constexpr std::array<Row, faultCount> rows{{
    {Fault::Drop, "drop", 0, 0, "no answer at all", byAll},
    {Fault::Duplicate, "duplicate", 0, 0, "every piece of the answer twice"},
    {Fault::Delay, "delay", 100, 3600000, "the answer later by AMOUNT ms", byAll},
    {Fault::WrongChecksum, "wrong-checksum", 0, 0, "the reply's checksum off by one"},
    {Fault::Truncate, "truncate", 1, 18, "the reply without its last AMOUNT bytes"},
    {Fault::Oversize, "oversize", 1, 1000, "AMOUNT bytes too many behind the reply"},
    {Fault::BlockFirst, "block-first", 0, 0, "the block before its reply"},
    {Fault::ShortBlock, "short-block", 1, 65535, "the block without its last AMOUNT bytes"},
    {Fault::LongBlock, "long-block", 1, 10000, "AMOUNT bytes too many behind the block"},
    {Fault::BlockChecksum, "block-checksum", 0, 0, "the block's checksum off by one (streams)",
     onStreams},
    {Fault::Garbage, "garbage", 32, 10000, "AMOUNT random bytes before the answer", byAll},
    {Fault::Flood, "flood", 1000, 10000000, "the answer AMOUNT times over", byAll},
    {Fault::Noise, "noise", 4, 1000, "AMOUNT random bytes inside the reply (streams)", onStreams},
    {Fault::LateBlock, "late-block", 700, 3600000, "the block later by AMOUNT ms (streams)",
     onStreams},
    {Fault::Glue, "glue", 0, 0, "the answer in one piece with the next (streams)", onStreams},
    {Fault::Split, "split", 1, 3600000, "every byte of the answer AMOUNT ms apart (streams, osd)",
     onStreams | byEndpoints},
    {Fault::HangUp, "hang-up", 0, 0, "half the answer, then a hang-up (streams, osd)",
     onStreams | byEndpoints},
    {Fault::Reset, "reset", 0, 0, "the connection reset instead of an answer (osd)", byEndpoints},
    {Fault::CloseAfter, "close-after", 64, 1000000000,
     "a connection closed after AMOUNT bytes (osd)", byEndpoints},
    {Fault::Refuse, "refuse", 0, 0, "connections refused; no =WHEN (osd)", byEndpoints, true},
    {Fault::NeverRead, "never-read", 0, 0, "connections never read from; no =WHEN (osd)",
     byEndpoints, true},
}};

constexpr bool inOrder()
{
    for (std::size_t i = 0; i < rows.size(); ++i) {
        if (static_cast<std::size_t>(rows[i].fault) != i) {
            return false;
        }
    }
    return true;
}
static_assert(inOrder());

const Row& rowOf(Fault fault)
{
    return rows[static_cast<std::size_t>(fault)];
}

const Row* rowOf(const QString& name)
{
    for (const Row& row : rows) {
        if (name == QLatin1String(row.name)) {
            return &row;
        }
    }
    return nullptr;
}

// 53 random bits make an exact double, the same everywhere, as the standard's own distributions
// are not.
constexpr double unit = 1.0 / 9007199254740992.0;
constexpr int unusedBits = 11;

} // namespace

bool SeededRandom::chance(double probability)
{
    return static_cast<double>(engine() >> unusedBits) * unit < probability;
}

int SeededRandom::below(int limit)
{
    return static_cast<int>(engine() % static_cast<quint64>(limit));
}

void Faults::set(Fault fault, const Setting& setting)
{
    settings[static_cast<std::size_t>(fault)] = setting;
}

int Faults::amount(Fault fault) const
{
    const int chosen = settings[static_cast<std::size_t>(fault)].amount;
    return chosen > 0 ? chosen : rowOf(fault).defaultAmount;
}

bool Faults::strikes(Fault fault, SeededRandom& random)
{
    Setting& setting = settings[static_cast<std::size_t>(fault)];
    if (setting.count > 0) {
        --setting.count;
        return true;
    }
    return setting.probability > 0 && random.chance(setting.probability);
}

QString Faults::parse(const QString& text)
{
    const QString name = text.section(QLatin1Char('='), 0, 0);
    const Row* row = rowOf(name);
    if (row == nullptr) {
        QStringList names;
        for (const Row& known : rows) {
            names << QLatin1String(known.name);
        }
        return QStringLiteral("\"%1\" is no fault: take one of %2")
            .arg(name, names.join(QStringLiteral(", ")));
    }
    if (row->lasting) {
        if (text != name) {
            return QStringLiteral("\"%1\": %2 is there all the time: write %2 alone")
                .arg(text, name);
        }
        set(row->fault, {1.0, 0, 0});
        return {};
    }
    const QString value = text.section(QLatin1Char('='), 1);
    const QString when = value.section(QLatin1Char(':'), 0, 0);
    const QString howMuch = value.section(QLatin1Char(':'), 1);
    Setting setting;
    static const QRegularExpression percentage(
        QRegularExpression::anchoredPattern(QStringLiteral("([0-9]+(?:\\.[0-9]+)?)%")));
    const QRegularExpressionMatch chance = percentage.match(when);
    if (chance.hasMatch()) {
        setting.probability = chance.captured(1).toDouble() / 100.0;
    } else {
        setting.count = decimal(when).value_or(0);
    }
    if (setting.probability > 1 || (!chance.hasMatch() && setting.count < 1)) {
        return QStringLiteral("\"%1\" does not say when: write %2=10% (a chance of 0 to 100%) or "
                              "%2=3 (the first three times)")
            .arg(text, name);
    }
    if (value.contains(QLatin1Char(':'))) {
        setting.amount = decimal(howMuch).value_or(0);
        if (row->defaultAmount == 0) {
            return QStringLiteral("\"%1\": %2 takes no amount").arg(text, name);
        }
        if (setting.amount < 1 || setting.amount > row->mostAmount) {
            return QStringLiteral("\"%1\": the amount of %2 is a number from 1 to %3")
                .arg(text, name)
                .arg(row->mostAmount);
        }
    }
    set(row->fault, setting);
    return {};
}

bool Faults::lasts(Fault fault) const
{
    return settings[static_cast<std::size_t>(fault)].probability >= 1;
}

QStringList Faults::unfit(Faulty who) const
{
    QStringList names;
    for (const Row& row : rows) {
        const Setting& setting = settings[static_cast<std::size_t>(row.fault)];
        if ((row.by & static_cast<unsigned>(who)) == 0 &&
            (setting.count > 0 || setting.probability > 0)) {
            names << QLatin1String(row.name);
        }
    }
    return names;
}

bool Faults::isLasting(Fault fault)
{
    return rowOf(fault).lasting;
}

QString Faults::name(Fault fault)
{
    return QLatin1String(rowOf(fault).name);
}

QString Faults::help()
{
    QString text;
    for (const Row& row : rows) {
        text += QStringLiteral("  %1 %2")
                    .arg(QLatin1String(row.name), -15)
                    .arg(QLatin1String(row.help));
        if (row.defaultAmount > 0) {
            text += QStringLiteral(" (%1)").arg(row.defaultAmount);
        }
        text += QLatin1Char('\n');
    }
    return text;
}
