// SPDX-License-Identifier: MIT
#pragma once

#include "linkregistry.h"

#include <memory>
#include <string>
#include <vector>

namespace CLI
{
class App;
}

/// The options of every subcommand that works with a link: which link, which device type, where
/// the log goes.
class LinkOptions
{
public:
    /// Adds them, with one link or more. Must outlive the parsing.
    void addTo(CLI::App& app);

    /// Sets the host-wide device type and returns what the link's address designates. Throws
    /// BadInput.
    std::unique_ptr<LinkTarget> target() const;

    /// Starts the log and the watch on the library's debug lines. Throws BadInput.
    void startLog() const;

    QStringList links() const;
    QString link() const { return links().join(QLatin1Char(' ')); } ///< as written

private:
    std::vector<std::string> addresses;
    std::string deviceType;
    std::string log;
    bool verbose = false;
};
