// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

/// A directory of this process's own in the temporary one ($TMPDIR, /tmp unless set), for what
/// nobody needs once the tool has ended: it goes with the process.
namespace scratch
{

/// Its path; made with the first call. Empty if it cannot be made.
QString path();

/// Throws LinkDown unless it is there and takes a file of this size now.
void require(qint64 bytes);

/// That the temporary directory does not take the files of something, and what would help.
QString refusal(const QString& whose, const QString& reason);

} // namespace scratch
