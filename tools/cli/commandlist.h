// SPDX-License-Identifier: MIT
#pragma once

#include "commandfield.h"

/// Commands that a file lists.
namespace commandlist
{

/// The commands of a file, "-" is standard input, which is read to its end: JSON lines, or CSV
/// below a line of field names.
///
/// A JSON line has the fields by their lower-case names, as numbers or as texts like "0x8b", and
/// the block, data or raw bytes in hexadecimal. Lines that the tool itself has printed are taken,
/// too: what it computes is left out, and of a line without fields the frame is sent as it is.
///
/// Throws BadInput, which names \a option or the line, also if there is no command.
std::vector<Command> read(const QString& option, const QString& path, FieldSet fields);

} // namespace commandlist
