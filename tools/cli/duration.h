// SPDX-License-Identifier: MIT
#pragma once

#include <chrono>
#include <string>

#include <QtGlobal>

namespace CLI
{
class App;
}

/// The options --count and --for: how long something goes on.
class Duration
{
public:
    /// Adds them; \a what is counted. Must outlive the parsing.
    void addTo(CLI::App& app, const char* what);

    /// Throws BadInput if a number is wrong.
    void read();

    bool reached(qint64 number) const { return most > 0 && number >= most; }

    /// Whether fewer came than were asked for, and nobody ended it by hand.
    bool fellShort(qint64 number, bool interrupted) const
    {
        return most > 0 && number < most && !interrupted;
    }

    std::chrono::milliseconds limit() const { return time; } ///< or forEver

private:
    std::string countText;
    std::string timeText;
    qint64 most = 0; // 0: no end
    std::chrono::milliseconds time{-1};
};
