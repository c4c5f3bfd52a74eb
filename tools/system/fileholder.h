// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

#include <functional>

/// Which program has a device, a file or a socket open, as the kernel tells it.
namespace fileholder
{

/// "process 123 (name)" of one that has something open whose name, as /proc/PID/fd shows it, fits.
/// Empty if there is none that this user may see.
QString find(const std::function<bool(const QByteArray& name)>& fits);

} // namespace fileholder
