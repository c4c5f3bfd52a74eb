// SPDX-License-Identifier: MIT
#pragma once

#include "devicelink.h"

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
    /// Adds --cmd, --dat1, --ch2 and the others to a subcommand. Must outlive its parsing.
    void addTo(CLI::App& app);

    /// The command. DAT3 and DAT4 not given are the block's length where there is a block. Throws
    /// BadInput if a value is out of range, a field is not one of \a fields, --cmd is missing (with
    /// OsdFrame: every field is) or the block cannot be read.
    Command read(FieldSet fields) const;

private:
    bool given(const std::string& name) const { return values.count(name) != 0; }
    int number(const std::string& name, int most, int otherwise) const;
    quint8 byte(const char* name, int otherwise = 0) const;
    Command readDevice(bool binary) const;
    Command readOsd() const;

    std::map<std::string, std::string> values; // what was given, by option name
};

/// Numbers and bytes as a person types them.
namespace typed
{

/// A decimal number, or a hexadecimal one after 0x, from \a least to \a most. Throws BadInput,
/// which names the option.
qint64 number(const QString& option, const std::string& text, qint64 least, qint64 most);

constexpr int mostFile = 16'777'216; ///< bytes, where nothing else limits them

/// The bytes of "@FILE", as they are, or of hexadecimal digits with or without blanks, at most
/// \a most. Throws BadInput, which names the option.
QByteArray bytes(const QString& option, const std::string& text, int most);

/// All bytes of a file, at most \a most; "-" is standard input up to its end. Throws BadInput,
/// also if they cannot all be read.
QByteArray file(const QString& option, const QString& path, int most);

} // namespace typed
