// SPDX-License-Identifier: MIT
#pragma once

#include <algorithm>
#include <filesystem>
#include <map>
#include <string>

/// Handles of emulated HID nodes that this process has open. The emulation, in the same process,
/// has each of their pseudo-terminals open too.
inline int openHidNodes()
{
    std::map<std::string, int> nodes;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code error; // it may have been closed meanwhile
        ++nodes[std::filesystem::read_symlink(entry, error).string()];
    }
    return static_cast<int>(std::count_if(nodes.begin(), nodes.end(), [](const auto& node) {
        return node.first.rfind("/dev/pts/", 0) == 0 && node.second == 2;
    }));
}
