// SPDX-License-Identifier: MIT
#include "duration.h"

#include "commandfields.h"
#include "waiting.h"

#include <CLI/CLI.hpp>

namespace
{

constexpr qint64 mostCount = 1000000000;
constexpr qint64 mostSeconds = qint64{366} * 24 * 3600;

} // namespace

void Duration::addTo(CLI::App& app, const char* what)
{
    app.add_option("--count", countText, std::string("end after so many ") + what)->type_name("N");
    app.add_option("--for", timeText, "end after so many seconds")->type_name("S");
}

void Duration::read()
{
    if (!countText.empty()) {
        most = typed::number(QStringLiteral("--count"), countText, 1, mostCount);
    }
    time = forEver;
    if (!timeText.empty()) {
        time =
            std::chrono::seconds(typed::number(QStringLiteral("--for"), timeText, 1, mostSeconds));
    }
}
