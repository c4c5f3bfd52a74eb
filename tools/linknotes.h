// SPDX-License-Identifier: MIT
#pragma once

#include <QStringList>

/// What the library says only in its debug lines: that a frame did not go out, that something came
/// which was no reply. Any thread.
namespace linknotes
{

/// Starts to listen to the debug lines. With \a verbose they all go to standard error, too.
void install(bool verbose);

/// Whether a frame was refused by the system since the last call.
bool takeSendFailure();

/// What came and was refused since the last call, in words; each once.
QStringList takeRefusals();

} // namespace linknotes
