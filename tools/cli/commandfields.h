// SPDX-License-Identifier: MIT
#pragma once

#include "commandfield.h"

#include <map>
#include <string>

namespace CLI
{
class App;
}

/// The options that describe a command, and the command they describe.
class CommandFields
{
public:
    /// Adds --cmd, --dat1, --ch2 and the others to a subcommand. Must outlive its parsing, which
    /// throws BadInput if a number is out of range.
    void addTo(CLI::App& app);

    /// The command. DAT3 and DAT4 not given are the block's length where there is a block. Throws
    /// BadInput if a field is not one of \a fields, --cmd is missing (with OsdFrame: every field
    /// is) or the block cannot be read.
    Command read(FieldSet fields) const;

private:
    bool given(const char* option) const { return payload.count(option) != 0; }
    QByteArray payloadOf(const char* option, int limit) const;

    std::map<const CommandField*, int> numbers; // what was given
    std::map<std::string, std::string> payload; // by option: the block or the data
};
