// SPDX-License-Identifier: MIT
#include "jsonschema.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>

#include <algorithm>
#include <cmath>
#include <optional>
#include <stdexcept>

namespace
{

struct Mismatch {
    QString text;
    int depth; // of its place
};

struct Place {
    QString name;
    int depth = 0;

    Place member(const QString& key) const
    {
        return {name.isEmpty() ? key : name + QLatin1Char('.') + key, depth + 1};
    }
    Place item(int index) const { return {name + QStringLiteral("[%1]").arg(index), depth + 1}; }
};

QString shown(const QJsonValue& value)
{
    if (value.isString()) {
        return value.toString();
    }
    const QByteArray listed =
        QJsonDocument(QJsonArray{value}).toJson(QJsonDocument::Compact).trimmed();
    return QString::fromUtf8(listed.mid(1, listed.size() - 2));
}

QString withPlace(const QString& place, const QString& text)
{
    return place.isEmpty() ? text : place + QStringLiteral(": ") + text;
}

bool isOfType(const QJsonValue& value, const QString& type)
{
    switch (value.type()) {
    case QJsonValue::Bool:
        return type == QLatin1String("boolean");
    case QJsonValue::Double:
        return type == QLatin1String("number") ||
               (type == QLatin1String("integer") &&
                std::trunc(value.toDouble()) == value.toDouble());
    case QJsonValue::String:
        return type == QLatin1String("string");
    case QJsonValue::Array:
        return type == QLatin1String("array");
    case QJsonValue::Object:
        return type == QLatin1String("object");
    default:
        return type == QLatin1String("null");
    }
}

// What a schema says of a value by itself, whatever is in it.
bool allows(const QJsonObject& schema, const QJsonValue& value)
{
    const auto has = [&schema](const char* keyword) {
        return schema.contains(QLatin1String(keyword));
    };
    const auto get = [&schema](const char* keyword) {
        return schema.value(QLatin1String(keyword));
    };
    if (has("type") && !isOfType(value, get("type").toString())) {
        return false;
    }
    if (has("enum") && !get("enum").toArray().contains(value)) {
        return false;
    }
    if (value.isDouble()) {
        return (!has("minimum") || value.toDouble() >= get("minimum").toDouble()) &&
               (!has("maximum") || value.toDouble() <= get("maximum").toDouble());
    }
    if (value.isString() && has("pattern")) {
        return QRegularExpression(get("pattern").toString()).match(value.toString()).hasMatch();
    }
    if (value.isArray()) {
        const auto size = value.toArray().size();
        return (!has("minItems") || size >= get("minItems").toInt()) &&
               (!has("maxItems") || size <= get("maxItems").toInt());
    }
    return true;
}

class Checker
{
public:
    explicit Checker(const QJsonObject& root)
        : definitions(root.value(QLatin1String("$defs")).toObject())
    {
    }

    std::optional<Mismatch> check(const QJsonObject& written, const QJsonValue& value,
                                  const Place& place) const
    {
        const QJsonObject schema = resolved(written);
        const Mismatch itself{
            jsonschema::invalid(place.name, value, schema.value(QLatin1String("title")).toString()),
            place.depth};
        if (!allows(schema, value)) {
            return itself;
        }
        if (schema.contains(QLatin1String("anyOf"))) {
            return checkAny(schema, value, place, itself);
        }
        return value.isArray()    ? checkItems(schema, value.toArray(), place)
               : value.isObject() ? checkMembers(schema, value.toObject(), place)
                                  : std::nullopt;
    }

private:
    QJsonObject resolved(const QJsonObject& schema) const
    {
        const QString reference = schema.value(QLatin1String("$ref")).toString();
        return reference.isEmpty()
                   ? schema
                   : resolved(
                         definitions.value(reference.section(QLatin1Char('/'), -1)).toObject());
    }

    // The one that fits up to the deepest place is the one that was meant.
    std::optional<Mismatch> checkAny(const QJsonObject& schema, const QJsonValue& value,
                                     const Place& place, const Mismatch& itself) const
    {
        Mismatch meant = itself;
        for (const QJsonValue one : schema.value(QLatin1String("anyOf")).toArray()) {
            const auto wrong = check(one.toObject(), value, place);
            if (!wrong) {
                return std::nullopt;
            }
            if (wrong->depth > meant.depth) {
                meant = *wrong;
            }
        }
        return meant;
    }

    std::optional<Mismatch> checkItems(const QJsonObject& schema, const QJsonArray& array,
                                       const Place& place) const
    {
        const QJsonObject items = schema.value(QLatin1String("items")).toObject();
        for (int i = 0; i < array.size(); ++i) {
            if (auto wrong = check(items, array.at(i), place.item(i))) {
                return wrong;
            }
        }
        return std::nullopt;
    }

    std::optional<Mismatch> checkMembers(const QJsonObject& schema, const QJsonObject& object,
                                         const Place& place) const
    {
        for (const QJsonValue required : schema.value(QLatin1String("required")).toArray()) {
            if (!object.contains(required.toString())) {
                return Mismatch{
                    withPlace(place.name,
                              QStringLiteral("\"%1\" is missing").arg(required.toString())),
                    place.depth + 1};
            }
        }
        const QJsonObject known = schema.value(QLatin1String("properties")).toObject();
        const QJsonValue others = schema.value(QLatin1String("additionalProperties"));
        for (auto member = object.begin(); member != object.end(); ++member) {
            const auto property = known.find(member.key());
            if (property == known.end() && others.isBool() && !others.toBool()) {
                return Mismatch{
                    withPlace(place.name,
                              QStringLiteral("unknown \"%1\" (expected %2)")
                                  .arg(member.key(), known.keys().join(QLatin1String(", ")))),
                    place.depth + 1};
            }
            const QJsonValue meant = property == known.end() ? others : property.value();
            if (auto wrong = check(meant.toObject(), member.value(), place.member(member.key()))) {
                return wrong;
            }
        }
        return std::nullopt;
    }

    const QJsonObject definitions;
};

} // namespace

QJsonObject jsonschema::parsed(const QByteArray& json, const QByteArray& schema)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(json, &error);
    if (error.error != QJsonParseError::NoError) {
        const QByteArray before = json.left(error.offset);
        const bool isHexadecimal = json.mid(qMax(0, error.offset - 2), 3).contains("0x");
        throw std::invalid_argument(
            QStringLiteral("line %1, column %2: %3%4")
                .arg(before.count('\n') + 1)
                .arg(before.size() - before.lastIndexOf('\n'))
                .arg(error.errorString(),
                     isHexadecimal ? QStringLiteral("; hexadecimal goes in quotes, like \"0x8b\"")
                                   : QString())
                .toStdString());
    }
    const QString wrong =
        mismatch(QJsonDocument::fromJson(schema).object(),
                 document.isArray() ? QJsonValue(document.array()) : QJsonValue(document.object()));
    if (!wrong.isEmpty()) {
        throw std::invalid_argument(wrong.toStdString());
    }
    return document.object();
}

QString jsonschema::mismatch(const QJsonObject& schema, const QJsonValue& value)
{
    const auto wrong = Checker(schema).check(schema, value, {});
    return wrong ? wrong->text : QString();
}

QString jsonschema::invalid(const QString& place, const QJsonValue& value, const QString& expected)
{
    constexpr int shownLength = 40;
    QString text = shown(value);
    if (text.size() > shownLength) {
        text = text.left(shownLength) + QStringLiteral("...");
    }
    return withPlace(place,
                     QStringLiteral("invalid value \"%1\" (expected %2)").arg(text, expected));
}
