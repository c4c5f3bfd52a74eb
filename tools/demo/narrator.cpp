// SPDX-License-Identifier: MIT
#include "narrator.h"

#include "output.h"

void Narrator::say(const QString& text)
{
    output::line(QStringLiteral("\n* ") + text);
}

void Narrator::detail(const QString& text)
{
    output::line(QStringLiteral("    ") + text);
}

bool Narrator::expect(bool happened, const QString& what)
{
    if (stop.happened()) {
        return happened;
    }
    ++total;
    failures += happened ? 0 : 1;
    output::line(QStringLiteral("  %1 %2").arg(
        happened ? QStringLiteral("ok:") : QStringLiteral("FAILED:"), what));
    return happened;
}
