// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

/// The files that the tool writes besides its output: the library's log, and what nobody needs once
/// the tool has ended. The latter is in a directory of its own under $TMPDIR (/tmp unless set),
/// which is made with the first use and goes with the process.
namespace toolfiles
{

/// The temporary directory; empty if it cannot be made.
QString temporaryPath();

/// Throws LinkDown unless the temporary directory takes a file of this size now.
void requireRoom(qint64 bytes);

/// That the temporary directory does not take the files of something, and what would help.
QString noRoom(const QString& whose, const QString& reason);

/// Writes the log to \a path, or, if that is empty, to coremanage/coremanage.log under
/// $XDG_STATE_HOME, which is ~/.local/state unless set; where that cannot be written, to a
/// temporary file. Two files of at most 1 MiB are kept. Throws BadInput if \a path cannot be
/// written.
void startLog(const QString& path);

/// Writes the log to a temporary file.
void startTemporaryLog();

} // namespace toolfiles
