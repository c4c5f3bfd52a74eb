// SPDX-License-Identifier: MIT
#include "faults.h"

#include <QRegularExpression>

#include <algorithm>

namespace
{

// The number that a text writes in decimal digits and nothing else.
std::optional<int> decimal(const QString& text)
{
    const auto isDigit = [](QChar c) { return c >= QLatin1Char('0') && c <= QLatin1Char('9'); };
    bool isNumber = false;
    const int number = text.toInt(&isNumber);
    return isNumber && std::all_of(text.begin(), text.end(), isDigit) ? std::optional(number)
                                                                      : std::nullopt;
}

constexpr auto onDatagrams = static_cast<unsigned>(Faulty::Datagrams);
constexpr auto onStreams = static_cast<unsigned>(Faulty::Stream);
constexpr auto byEndpoints = static_cast<unsigned>(Faulty::Endpoint);
constexpr unsigned byDeviceLinks = onDatagrams | onStreams;
constexpr unsigned byAll = byDeviceLinks | byEndpoints;

struct Row {
    Fault fault;
    const char* name;
    int defaultAmount; // 0: takes none
    int amountLimit;
    const char* help;
    unsigned by = byDeviceLinks;
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

template <class Condition>
QStringList namesIf(Condition condition)
{
    QStringList names;
    for (const Row& row : rows) {
        if (condition(row)) {
            names << QLatin1String(row.name);
        }
    }
    return names;
}

// 53 random bits make the same double on every machine; the standard's distributions do not.
constexpr double unit = 1.0 / 9007199254740992.0;
constexpr int unusedBits = 11;

} // namespace

bool SeededRandom::chance(double probability)
{
    return static_cast<double>(engine() >> unusedBits) * unit < probability;
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
    const auto expected = [&text](const QString& what) {
        return QStringLiteral("invalid fault \"%1\" (expected %2)").arg(text, what);
    };
    const QString name = text.section(QLatin1Char('='), 0, 0);
    const auto row = std::find_if(rows.begin(), rows.end(), [&name](const Row& known) {
        return name == QLatin1String(known.name);
    });
    if (row == rows.end()) {
        return expected(namesIf([](const Row& /*row*/) { return true; }).join(QLatin1String(", ")));
    }
    if (row->lasting) {
        set(row->fault, {text == name ? 1.0 : 0.0, 0, 0});
        return text == name ? QString() : expected(name);
    }
    static const QRegularExpression form(QRegularExpression::anchoredPattern(
        QStringLiteral("(?:([0-9]+(?:\\.[0-9]+)?)%|([0-9]+))(:.*)?")));
    const auto match = form.match(text.section(QLatin1Char('='), 1));
    const Setting setting{match.captured(1).toDouble() / 100.0, match.captured(2).toInt(),
                          decimal(match.captured(3).mid(1)).value_or(0)};
    const bool hasChance = match.capturedLength(1) > 0 && setting.probability <= 1;
    if (!hasChance && setting.count < 1) {
        return expected(QStringLiteral("%1=10% for a chance of 0% to 100%, or %1=3 for the first "
                                       "three times")
                            .arg(name));
    }
    const bool hasAmount = setting.amount >= 1 && setting.amount <= row->amountLimit;
    if (match.capturedLength(3) > 0 && !hasAmount) {
        return expected(row->amountLimit == 0
                            ? QStringLiteral("no amount")
                            : QStringLiteral("an amount of 1 to %1").arg(row->amountLimit));
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
    return namesIf([this, who](const Row& row) {
        const Setting& setting = settings[static_cast<std::size_t>(row.fault)];
        return (row.by & static_cast<unsigned>(who)) == 0 &&
               (setting.count > 0 || setting.probability > 0);
    });
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
