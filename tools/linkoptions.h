// SPDX-License-Identifier: MIT
#pragma once

#include "linkregistry.h"

#include <memory>
#include <string>

namespace CLI
{
class App;
}

/// The options of every subcommand that works with a link: which link, which device type, where
/// the log goes.
class LinkOptions
{
public:
    /// Adds them. Must outlive the parsing.
    void addTo(CLI::App& app);

    /// Sets the host-wide device type and returns what the link's address designates. Throws
    /// BadInput.
    std::unique_ptr<Endpoint> endpoint() const;

    /// Starts the log and the watch on the library's debug lines. Throws BadInput.
    void startLog() const;

    QString link() const { return QString::fromStdString(address); }

private:
    std::string address;
    std::string deviceType;
    std::string log;
    bool verbose = false;
};
