// SPDX-License-Identifier: MIT
#pragma once

#include <QStringList>

#include <vector>

/// What people try instead of what the command line takes.
namespace shortcuts
{

/// The arguments, the program's name first, with "help SUBCOMMAND" as "SUBCOMMAND --help".
std::vector<const char*> resolved(int argc, char** argv);

/// The name that somebody who typed this most likely meant; empty if it is like none of them.
QString closest(const QString& typed, const QStringList& names);

} // namespace shortcuts
