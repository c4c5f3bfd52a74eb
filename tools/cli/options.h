// SPDX-License-Identifier: MIT
#pragma once

#include "captureoption.h"
#include "commandfield.h"
#include "linkregistry.h"
#include "typed.h"
#include "waiting.h"

#include <CLI/CLI.hpp>

#include <QDateTime>

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

/// Options that several subcommands have. What is wrong with one throws BadInput while the command
/// line is parsed, which every object here must outlive.
namespace options
{

/// Adds an option for a number from \a least to \a most.
template <class Number>
CLI::Option* addNumber(CLI::App& app, const std::string& name, Number& value, qint64 least,
                       qint64 most, const std::string& help, const char* type = "N")
{
    const auto read = [&value, name, least, most](const std::string& text) {
        value = static_cast<Number>(
            typed::number(QString::fromStdString(name), QString::fromStdString(text), least, most));
    };
    return app.add_option_function<std::string>(name, read, help)->type_name(type);
}

} // namespace options

/// The options of every subcommand that works with a link: which link, which device type, where
/// the log goes.
class LinkOptions
{
public:
    void addTo(CLI::App& app);

    /// Sets the host-wide device type and returns what the link's address designates. Throws
    /// BadInput.
    std::unique_ptr<LinkTarget> target() const;

    /// The same for each link by itself, with its name; the endpoints of osd:// are one link.
    std::vector<std::pair<QString, std::unique_ptr<LinkTarget>>> targets() const;

    /// Starts the log, the watch on the library's debug lines and the capture. Throws BadInput.
    void startLog();

    CaptureOption capture; ///< of every link that is opened behind startLog

    QString link() const { return links().join(' '); } ///< as written

private:
    QStringList links() const;
    void useDeviceType() const;

    std::vector<std::string> addresses;
    int deviceType = -1; // -1: as it is
    std::string log;
    bool verbose = false;
};

/// The options --count and --for: how long something goes on.
class Duration
{
public:
    void addTo(CLI::App& app, const std::string& what); ///< \a what is counted

    bool isGiven() const { return count > 0 || seconds > 0; }

    qint64 number() const { return count; } ///< 0: no end

    bool reached(qint64 number) const { return count > 0 && number >= count; }

    /// Whether fewer came than were asked for, and nobody ended it by hand.
    bool fellShort(qint64 number, bool interrupted) const { return number < count && !interrupted; }

    std::chrono::milliseconds limit() const; ///< or forEver

private:
    qint64 count = 0;   // 0: no end
    qint64 seconds = 0; // 0: no end
};

/// The option --time: what a line begins with.
class LineTime
{
public:
    void addTo(CLI::App& app);

    using Time = std::chrono::system_clock::time_point;

    /// For a line about something that happened then.
    QString text(Time time = std::chrono::system_clock::now());

    static QDateTime local(Time time);

private:
    bool isAbsolute = false;
    bool isDifference = false;
    std::optional<Time> before; // of the line before
};

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

    /// Sets a field, or the block or data, by its lower-case name. Throws BadInput.
    void set(const QString& name, const QString& text);

    bool isEmpty() const { return numbers.empty() && payload.empty(); }

private:
    bool given(const char* option) const { return payload.count(option) != 0; }
    void setNumber(const CommandField& field, const QString& text);
    QByteArray payloadOf(const char* option, int limit) const;

    std::map<const CommandField*, int> numbers; // what was given
    std::map<std::string, std::string> payload; // by option: the block or the data
};
