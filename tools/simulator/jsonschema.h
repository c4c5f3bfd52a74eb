// SPDX-License-Identifier: MIT
#pragma once

#include <QJsonObject>
#include <QJsonValue>
#include <QString>

/// Checks values against a JSON Schema, draft 2020-12. Pure.
///
/// It knows the keywords $ref (to "#/$defs/NAME"), anyOf, type, enum, minimum, maximum, pattern,
/// required, properties, additionalProperties, items (one schema), minItems and maxItems. The title
/// of a schema is what a message says was expected.
namespace jsonschema
{

/// What is wrong with the value, with its place in it: rules[2].reply.dat1: invalid value "300"
/// (expected 0 to 255). Empty if the value is valid. Of several things the first is named.
QString mismatch(const QJsonObject& schema, const QJsonValue& value);

/// The same words for what no schema can say.
QString invalid(const QString& place, const QJsonValue& value, const QString& expected);

} // namespace jsonschema
