// SPDX-License-Identifier: MIT
#include "narrator.h"

#include "output.h"

void Narrator::say(const QString& text)
{
    output::line("\n* " + text);
}

void Narrator::detail(const QString& text)
{
    output::line("    " + text);
}

void Narrator::expect(bool happened, const QString& what)
{
    if (stop.happened()) {
        return;
    }
    ++total;
    failures += happened ? 0 : 1;
    output::line(QString("  %1 %2").arg(happened ? "ok:" : "FAILED:", what));
}

bool Narrator::comes(const std::function<bool()>& condition)
{
    constexpr std::chrono::minutes patience{2};
    return waitFor(condition, patience, stop) == WaitEnd::Done;
}

void Narrator::run(const std::vector<std::function<void()>>& steps)
{
    for (const auto& step : steps) {
        if (!stop.happened()) {
            step();
        }
    }
}
