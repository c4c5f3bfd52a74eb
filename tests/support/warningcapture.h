// SPDX-License-Identifier: MIT
#pragma once

#include <QStringList>

/// Collects every message that Qt or the library emits, of whatever category and level, from every
/// thread, while it exists. One at a time.
class WarningCapture
{
public:
    WarningCapture();
    ~WarningCapture();
    WarningCapture(const WarningCapture&) = delete;
    WarningCapture& operator=(const WarningCapture&) = delete;

    QStringList lines() const;
};
