// SPDX-License-Identifier: MIT
#pragma once

#include "interrupt.h"

#include <QString>

/// Tells, step by step, what is being done and whether it came out as said.
class Narrator
{
public:
    explicit Narrator(const Interrupt& interrupt) : stop(interrupt) {}

    void say(const QString& text);    ///< a step begins
    void detail(const QString& text); ///< something seen on the way

    /// Notes whether what was said has happened, unless the person has had enough; returns it.
    bool expect(bool happened, const QString& what);

    bool allAsSaid() const { return failures == 0; }
    int expectations() const { return total; }
    const Interrupt& interrupt() const { return stop; }

private:
    const Interrupt& stop;
    int total = 0;
    int failures = 0;
};
