// SPDX-License-Identifier: MIT
#include "commands.h"

#include "extcap.h"
#include "output.h"
#include "shortcuts.h"
#include "toolerror.h"

#include <CLI/CLI.hpp>

#include <QRegularExpression>

#include <algorithm>
#include <cstring>
#include <sstream>
#include <vector>

namespace
{

QString withoutSubcommand(const CLI::App& application)
{
    QStringList names;
    for (const CLI::App* subcommand : application.get_subcommands({})) {
        names << QString::fromStdString(subcommand->get_name());
    }
    const std::vector<std::string> unknown = application.remaining();
    const QString given = unknown.empty() ? QString() : QString::fromStdString(unknown.front());
    if (given.contains("://") || given.startsWith("/dev/")) {
        return QString("\"%1\" is a link (did you mean coremanage listen %1?)").arg(given);
    }
    const QString meant = shortcuts::closest(given, names);
    return meant.isEmpty()
               ? QString::fromUtf8(BadInput("subcommand", given, names.join(", ")).what())
               : QString("there is no subcommand \"%1\" (did you mean %2?)").arg(given, meant);
}

// CLI11's own words, on one line, where they say what is wrong.
QString inWords(const CLI::ParseError& error)
{
    static const QRegularExpression repeated("^(.+): At Most 1 required.*");
    static const QRegularExpression bare("^(.+): 1 required.*");
    return QString::fromLocal8Bit(error.what())
        .replace('\n', ' ')
        .replace(repeated, "\\1 comes more than once: give it once")
        .replace(bare, "\\1 has no value: give one behind it")
        .trimmed();
}

// What is wrong, and where to find what would be right.
QString parseError(const CLI::App& application, const CLI::ParseError& error)
{
    std::string help = application.get_name();
    for (const CLI::App* subcommand : application.get_subcommands()) {
        help += ' ' + subcommand->get_name();
    }
    const QString what =
        application.get_subcommands().empty() ? withoutSubcommand(application) : inWords(error);
    return QString("%1: see %2 --help").arg(what, QString::fromStdString(help));
}

int parseAndRun(const std::vector<const char*>& arguments)
{
    CLI::App application;
    int code = exitcode::badInput;
    commandline::build(application, code);
    try {
        application.parse(static_cast<int>(arguments.size()), arguments.data());
    } catch (const CLI::Success& help) {
        std::ostringstream text;
        code = application.exit(help, text, text);
        output::raw(QByteArray::fromStdString(text.str()));
    } catch (const CLI::ParseError& error) {
        throw BadInput(parseError(application, error));
    }
    output::checkLoss();
    return code;
}

// A program that runs send --json gets its object whatever happens, also where the command line is
// wrong.
int fail(const std::vector<const char*>& arguments, const ToolError& error)
{
    const auto has = [&arguments](const char* word) {
        return std::find_if(arguments.begin(), arguments.end(), [word](const char* argument) {
                   return std::strcmp(argument, word) == 0;
               }) != arguments.end();
    };
    const QString text = QString::fromUtf8(error.what());
    output::error("coremanage: " + text, output::Tone::Bad);
    if (arguments.size() > 1 && std::strcmp(arguments[1], "send") == 0 && has("--json") &&
        !output::lost()) {
        output::result(error.json(), error.code(), text);
    }
    return error.code();
}

} // namespace

void commandline::build(CLI::App& application, int& code)
{
    application.name("coremanage");
    application.description("Talks to a device, or plays one");
    application.set_version_flag("--version", COREMANAGE_VERSION);
    application.require_subcommand(1);
    for (const auto add :
         {commands::addDemo, commands::addSend, commands::addListen, commands::addCapture,
          commands::addReplay, commands::addSimulate, commands::addBridge, commands::addDoctor,
          commands::addPorts, commands::addDevices, commands::addEncode, commands::addDecode}) {
        add(application, code);
    }
    application.footer("coremanage SUBCOMMAND --help says more, with examples.\n"
                       "\nExit codes: 0 done, 1 the operation failed (no reply, no valid frame),\n"
                       "2 wrong input and nothing sent, 3 a link could not be opened.");
}

int commandline::run(int argc, char** argv)
{
    const std::vector<const char*> arguments = shortcuts::resolved(argc, argv);
    try {
        return extcap::isAsked(argc, argv) ? extcap::run(argc, argv) : parseAndRun(arguments);
    } catch (const ToolError& error) {
        return fail(arguments, error);
    } catch (const std::exception& error) {
        return fail(arguments, ToolError(exitcode::failed, QString::fromLocal8Bit(error.what())));
    }
}
