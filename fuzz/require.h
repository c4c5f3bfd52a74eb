// SPDX-License-Identifier: MIT
#pragma once

#include "replybytes.h"

#include <QByteArray>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

/// Ends a fuzz target's process, with words, if something does not hold.
inline void require(bool condition, const char* what)
{
    if (!condition) {
        std::fprintf(stderr, "does not hold: %s\n", what);
        std::abort();
    }
}

constexpr int replyFields = 7; ///< HEAD to DAT4

/// A valid text reply of these fields, of which missing ones are 0.
inline QByteArray textReply(const QByteArray& fields)
{
    QByteArray body = fields.leftJustified(replyFields, '\0', true);
    body.append(replybytes::sumOf(body));
    return "<F" + body.toHex() + ">";
}
