// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

#include <functional>
#include <set>
#include <string>

/// Who may open a device, a file or a socket, and who has it open.
namespace fileaccess
{

/// Why this user cannot read and write it, with its rights: "Permission denied (0660, owner root,
/// group dialout)". Empty if he can.
QString refusal(const QString& path);

/// What would help him, if joining its group would: "join its group: sudo usermod ...".
QString remedy(const QString& path);

/// Both.
QString obstacle(const QString& path);

/// Where a udev rule goes, in one line that ends before the rule.
QString ruleAdvice();

/// What a symbolic link leads to in the end; another path as it is.
QString linked(const QString& path);

/// "process 123 (name)" of another one that has things open whose names, as /proc/PID/fd shows
/// them, fit. Empty if there is none that this user may see.
QString holder(const std::function<bool(const std::set<std::string>& names)>& fits);

/// The same of a serial line: who has locked it, else who has its node open. The program behind
/// the other end of a pseudo-terminal is its device, and none of these.
QString lineHolder(const QString& path);

/// Of a program that runs under this name.
QString running(const QString& name);

} // namespace fileaccess
