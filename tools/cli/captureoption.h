// SPDX-License-Identifier: MIT
#pragma once

#include "linkcapture.h"

#include <memory>
#include <string>

namespace CLI
{
class App;
}

/// The option --write: a capture of the links that a subcommand opens.
class CaptureOption
{
public:
    CaptureOption() = default;
    ~CaptureOption(); ///< ends the capture, and says what it has lost
    CaptureOption(const CaptureOption&) = delete;
    CaptureOption& operator=(const CaptureOption&) = delete;

    void addTo(CLI::App& app);
    bool isGiven() const { return !path.empty(); }

    /// Begins the file, if one is given. Throws BadInput if that cannot be.
    void begin();

    /// The links that are opened from now on stand in the file under this name.
    void watch(const QString& link);

    /// Ends the capture, and returns how many packets it has. Throws ToolError if some are lost.
    qint64 finish();

    const CaptureFile& file() const { return *captured; }

private:
    QString loss() const;

    std::string path;
    bool isOutputFree = false; // of anything but the capture
    std::shared_ptr<CaptureFile> captured;
    std::shared_ptr<LinkObserver> watcher;
};
