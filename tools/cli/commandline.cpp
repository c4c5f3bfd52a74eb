// SPDX-License-Identifier: MIT
#include "commands.h"

#include "output.h"
#include "toolerror.h"

#include <CLI/CLI.hpp>

#include <QRegularExpression>

#include <sstream>

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
    return QString::fromUtf8(BadInput("subcommand", given, names.join(", ")).what());
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
int reportParseError(const CLI::App& application, const CLI::ParseError& error)
{
    std::string help = application.get_name();
    for (const CLI::App* subcommand : application.get_subcommands()) {
        help += ' ' + subcommand->get_name();
    }
    const QString what =
        application.get_subcommands().empty() ? withoutSubcommand(application) : inWords(error);
    output::error(QString("coremanage: %1: see %2 --help").arg(what, QString::fromStdString(help)));
    return exitcode::badInput;
}

int parseAndRun(int argc, char** argv)
{
    CLI::App application;
    int code = exitcode::badInput;
    commandline::build(application, code);
    try {
        application.parse(argc, argv);
    } catch (const CLI::Success& help) {
        std::ostringstream text;
        code = application.exit(help, text, text);
        output::raw(QByteArray::fromStdString(text.str()));
    } catch (const CLI::ParseError& error) {
        return reportParseError(application, error);
    }
    output::checkLoss();
    return code;
}

} // namespace

void commandline::build(CLI::App& application, int& code)
{
    application.name("coremanage");
    application.description("Talks to a device, or plays one");
    application.set_version_flag("--version", COREMANAGE_VERSION);
    application.require_subcommand(1);
    for (const auto add :
         {commands::addDemo, commands::addSend, commands::addListen, commands::addSimulate,
          commands::addPorts, commands::addDevices, commands::addEncode, commands::addDecode}) {
        add(application, code);
    }
    application.footer("coremanage SUBCOMMAND --help says more, with examples.\n"
                       "\nExit codes: 0 done, 1 the operation failed (no reply, no valid frame),\n"
                       "2 wrong input and nothing sent, 3 a link could not be opened.");
}

int commandline::run(int argc, char** argv)
{
    try {
        return parseAndRun(argc, argv);
    } catch (const ToolError& error) {
        output::error("coremanage: " + QString::fromUtf8(error.what()));
        return error.code();
    } catch (const std::exception& error) {
        output::error("coremanage: " + QString::fromLocal8Bit(error.what()));
        return exitcode::failed;
    }
}
