// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

/// Who may do what with a file.
namespace filerights
{

/// "0660, owner root, group dialout", or why that cannot be told.
QString of(const QString& path);

/// Whether to be in the file's group, one other than root's, lets a person read and write it.
bool groupHelps(const QString& path);

} // namespace filerights
