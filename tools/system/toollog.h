// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

/// Where the library's log lines go while the tool runs.
namespace toollog
{

/// Takes \a path, or, if that is empty, the tool's own log file: coremanage/coremanage.log under
/// $XDG_STATE_HOME, which is ~/.local/state unless set; where that cannot be written, a temporary
/// file that goes with the tool. Two files of at most 1 MiB are kept. Throws BadInput if \a path
/// cannot be written.
void choose(const QString& path);

/// A temporary file that goes with the tool.
void chooseTemporary();

} // namespace toollog
