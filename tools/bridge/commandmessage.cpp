// SPDX-License-Identifier: MIT
#include "commandmessage.h"

#include "jsonschema.h"
#include "toolerror.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>
#include <cmath>
#include <vector>

namespace
{

constexpr int timeoutLimitMs = 60'000;
constexpr int triesLimit = 10;

[[noreturn]] void refuse(const QString& member, const QJsonValue& value, const QString& expected)
{
    throw BadInput(jsonschema::invalid(member, value, expected));
}

// A number, or a text in hexadecimal after 0x.
int number(const QString& member, const QJsonValue& value, int lowest, int highest)
{
    const QString text = value.toString();
    bool isNumber = value.isDouble();
    double given = value.toDouble();
    if (text.startsWith(QLatin1String("0x"))) {
        given = text.mid(2).toUInt(&isNumber, 16);
        isNumber = isNumber && text.at(2) != QLatin1Char('+') && !text.at(2).isSpace();
    }
    if (!isNumber || std::trunc(given) != given || given < lowest || given > highest) {
        refuse(member, value,
               QStringLiteral("%1 to %2, or hexadecimal like \"0x8b\"").arg(lowest).arg(highest));
    }
    return static_cast<int>(given);
}

QByteArray payloadBytes(const QString& member, const QJsonValue& value, int limit)
{
    const QByteArray digits = value.toString().toLatin1();
    const bool isHexadecimal = std::all_of(digits.begin(), digits.end(), [](char c) {
        return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
    });
    if (!value.isString() || !isHexadecimal || digits.size() % 2 != 0) {
        refuse(member, value, QStringLiteral("hexadecimal digits in pairs, like \"00ff10\""));
    }
    if (digits.size() / 2 > limit) {
        throw BadInput(QStringLiteral("%1: %2 bytes are too many (expected 0 to %3)")
                           .arg(member)
                           .arg(digits.size() / 2)
                           .arg(limit));
    }
    return QByteArray::fromHex(digits);
}

// The one that somebody may set by this name; null if there is none.
const CommandField* fieldCalled(const QString& name, FieldSet fields)
{
    const auto& all = CommandField::all();
    const bool isLower = name.toLower() == name;
    const auto found = std::find_if(all.begin(), all.end(), [&](const CommandField& field) {
        return field.help != nullptr && field.isIn(fields) && isLower &&
               name.compare(QLatin1String(field.name), Qt::CaseInsensitive) == 0;
    });
    return found == all.end() ? nullptr : &*found;
}

QString knownMembers(const QString& payload, FieldSet fields)
{
    QStringList names;
    for (const CommandField& field : CommandField::all()) {
        if (field.help != nullptr && field.isIn(fields)) {
            names << QString::fromLatin1(field.name).toLower();
        }
    }
    return (names << payload << "timeout_ms"
                  << "tries")
        .join(", ");
}

} // namespace

int CommandMessage::sizeLimit(int blockLimit)
{
    constexpr int others = 4096;
    return 2 * blockLimit + others;
}

CommandMessage CommandMessage::parse(const QByteArray& payload, FieldSet fields, int blockLimit)
{
    if (payload.size() > sizeLimit(blockLimit)) {
        throw BadInput(QStringLiteral("a command of %1 bytes is too large (expected at most %2)")
                           .arg(payload.size())
                           .arg(sizeLimit(blockLimit)));
    }
    QJsonParseError wrong{};
    const QJsonDocument document = QJsonDocument::fromJson(payload, &wrong);
    if (!document.isObject()) {
        throw BadInput(wrong.error == QJsonParseError::NoError
                           ? QStringLiteral("no JSON object")
                           : QStringLiteral("no JSON: %1 at byte %2")
                                 .arg(wrong.errorString())
                                 .arg(wrong.offset));
    }
    const bool isOsd = fields == FieldSet::OsdFrame;
    const QString payloadName = isOsd ? QStringLiteral("data") : QStringLiteral("block");
    const QJsonObject object = document.object();
    CommandMessage message;
    QByteArray bytes;
    std::vector<std::pair<const CommandField*, int>> numbers;
    for (auto member = object.begin(); member != object.end(); ++member) {
        const QString name = member.key();
        if (name == payloadName) {
            bytes = payloadBytes(name, member.value(), blockLimit);
        } else if (name == QLatin1String("timeout_ms")) {
            message.timeoutMs = number(name, member.value(), 1, timeoutLimitMs);
        } else if (name == QLatin1String("tries")) {
            message.tries = number(name, member.value(), 1, triesLimit);
        } else if (const CommandField* const field = fieldCalled(name, fields)) {
            const int limit = (1 << (8 * field->bytes())) - 1;
            numbers.emplace_back(field, number(name, member.value(), 0, limit));
        } else {
            throw BadInput(QStringLiteral("unknown \"%1\" (expected %2)")
                               .arg(name, knownMembers(payloadName, fields)));
        }
    }
    if (!isOsd && !object.contains(QLatin1String("cmd"))) {
        throw BadInput(QStringLiteral("\"cmd\" is missing"));
    }
    message.command = Command::of(bytes, fields);
    for (const auto& [field, value] : numbers) {
        field->set(message.command, value);
    }
    return message;
}
