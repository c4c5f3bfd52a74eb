// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

#include <algorithm>
#include <optional>

/// The number that a text writes in decimal digits and nothing else, no sign and no blank; none
/// where it is another text, or a number beyond an int.
inline std::optional<int> decimal(const QString& text)
{
    const auto isDigit = [](QChar c) { return c >= QLatin1Char('0') && c <= QLatin1Char('9'); };
    bool isNumber = false;
    const int number = text.toInt(&isNumber);
    if (!isNumber || !std::all_of(text.begin(), text.end(), isDigit)) {
        return std::nullopt;
    }
    return number;
}
