// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

#include <functional>

/// Who may open a device, a file or a socket, and who has it open.
namespace fileaccess
{

/// Why this user cannot read and write it, with its rights and what would help: "Permission denied
/// (0660, owner root, group dialout): join its group: ...". Empty if he can.
QString obstacle(const QString& path);

/// "process 123 (name)" of one that has something open whose name, as /proc/PID/fd shows it, fits.
/// Empty if there is none that this user may see.
QString holder(const std::function<bool(const std::string& name)>& fits);

} // namespace fileaccess
