// SPDX-License-Identifier: MIT
#include "commands/commands.h"
#include "hidemulation.h"
#include "output.h"
#include "toolerror.h"

#include <CLI/CLI.hpp>

#include <QCoreApplication>

#include <array>

#include <csignal>
namespace
{

// CLI11's own words, on one line, and where to find what would be right.
int reportParseError(const CLI::App& application, const CLI::ParseError& error)
{
    std::string help = application.get_name();
    for (const CLI::App* subcommand : application.get_subcommands()) {
        help += ' ' + subcommand->get_name();
    }
    QString what = QString::fromLocal8Bit(error.what());
    if (application.get_subcommands().empty()) {
        what = QStringLiteral("give one of demo, send, listen, simulate, ports, devices, encode, "
                              "decode first");
    }
    what.replace(QLatin1Char('\n'), QLatin1Char(' '));
    output::error(QStringLiteral("coremanage: %1: see %2 --help")
                      .arg(what.trimmed(), QString::fromStdString(help)));
    return exitcode::badInput;
}

int parseAndRun(int argc, char** argv)
{
    CLI::App application("Talks to a device, or plays one", "coremanage");
    application.set_version_flag("--version", COREMANAGE_VERSION);
    application.require_subcommand(1);
    const std::array subcommands{
        commands::addDemo(application),   commands::addSend(application),
        commands::addListen(application), commands::addSimulate(application),
        commands::addPorts(application),  commands::addDevices(application),
        commands::addEncode(application), commands::addDecode(application)};
    application.footer("coremanage SUBCOMMAND --help says more, with examples.\n"
                       "\nExit codes: 0 done, 1 the operation failed (no reply, no valid frame),\n"
                       "2 wrong input and nothing sent, 3 a link could not be opened.");
    try {
        application.parse(argc, argv);
    } catch (const CLI::Success& help) {
        return application.exit(help);
    } catch (const CLI::ParseError& error) {
        return reportParseError(application, error);
    }
    for (const commands::Subcommand& subcommand : subcommands) {
        if (subcommand.parser->parsed()) {
            const int code = subcommand.run();
            output::checkLoss();
            return code;
        }
    }
    return exitcode::badInput;
}

} // namespace

int main(int argc, char** argv)
{
    hidemulation::prepare(argv);
    const QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("coremanage"));
    try {
        return parseAndRun(argc, argv);
    } catch (const ToolError& error) {
        output::error(QStringLiteral("coremanage: ") + QString::fromUtf8(error.what()));
        return error.code();
    } catch (const std::exception& error) {
        output::error(QStringLiteral("coremanage: ") + QString::fromLocal8Bit(error.what()));
        return exitcode::failed;
    }
}
    std::signal(SIGPIPE, SIG_IGN); // lost output is noticed where it is written
