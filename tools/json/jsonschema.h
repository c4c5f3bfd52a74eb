// SPDX-License-Identifier: MIT
#pragma once

#include <QJsonObject>
#include <QJsonValue>
#include <QString>

/// Reads JSON and checks values against a JSON Schema, draft 2020-12. Pure.
///
/// It knows the keywords $ref (to "#/$defs/NAME"), anyOf, type, enum, minimum, maximum, pattern,
/// required, properties, additionalProperties, items (one schema), minItems and maxItems. The title
/// of a schema is what a message says was expected.
namespace jsonschema
{

/// The object in a file's text, valid under \a schema, a JSON Schema in JSON. Throws
/// std::invalid_argument, in UTF-8, which names the line and column of what is no JSON, or what the
/// schema refuses and its place.
QJsonObject parsed(const QByteArray& json, const QByteArray& schema);

/// What is wrong with the value, with its place in it: rules[2].reply.dat1: invalid value "300"
/// (expected 0 to 255). Empty if the value is valid. Of several things the first is named.
QString mismatch(const QJsonObject& schema, const QJsonValue& value);

/// The same words for what no schema can say.
QString invalid(const QString& place, const QJsonValue& value, const QString& expected);

} // namespace jsonschema
