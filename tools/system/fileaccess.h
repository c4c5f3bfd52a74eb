// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

#include <functional>

/// Who may open a device, a file or a socket, and who has it open.
namespace fileaccess
{

/// Why this user cannot read and write it, with its rights: "Permission denied (0660, owner root,
/// group dialout)". Empty if he can.
QString obstacle(const QString& path);

/// Whether membership of the file's group, one other than root's, allows reading and writing it.
bool groupHelps(const QString& path);

/// "process 123 (name)" of one that has something open whose name, as /proc/PID/fd shows it, fits.
/// Empty if there is none that this user may see.
QString holder(const std::function<bool(const std::string& name)>& fits);

} // namespace fileaccess
