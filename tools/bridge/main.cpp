// SPDX-License-Identifier: MIT
#include "bridge.h"
#include "linknotes.h"
#include "output.h"
#include "toolerror.h"
#include "toolfiles.h"
#include "waiting.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QSocketNotifier>

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <exception>
#include <thread>

namespace
{

// Whatever a link, a name server or a certificate holds it up with, a service ends in time.
void endForSure()
{
    constexpr std::chrono::milliseconds limit{1900};
    std::thread([limit] {
        std::this_thread::sleep_for(limit);
        std::_Exit(exitcode::success);
    }).detach();
}

int serve(const BridgeConfig& config)
{
    const Interrupt interrupt;
    toolfiles::startLog({});
    linknotes::install(false);
    Bridge bridge(config);
    QObject::connect(&bridge, &Bridge::ended, &QCoreApplication::quit);
    QSocketNotifier asked(interrupt.readable(), QSocketNotifier::Read);
    QObject::connect(&asked, &QSocketNotifier::activated, &bridge, [&] {
        asked.setEnabled(false);
        endForSure();
        bridge.end();
    });
    if (!bridge.start()) {
        return exitcode::failed;
    }
    QCoreApplication::exec();
    if (bridge.isStuck()) {
        std::_Exit(exitcode::success);
    }
    return exitcode::success;
}

int run()
{
    QCommandLineParser parser;
    parser.setApplicationDescription("Connects links to an MQTT broker");
    parser.addPositionalArgument("FILE", "The configuration, in JSON.");
    const QCommandLineOption help = parser.addHelpOption();
    const QCommandLineOption version = parser.addVersionOption();
    const QCommandLineOption check("check", "Only say what is wrong with the configuration.");
    parser.addOption(check);
    if (!parser.parse(QCoreApplication::arguments())) {
        throw BadInput(parser.errorText());
    }
    if (parser.isSet(help)) {
        output::line(parser.helpText().trimmed());
        return exitcode::success;
    }
    if (parser.isSet(version)) {
        output::line(COREMANAGE_VERSION);
        return exitcode::success;
    }
    const QStringList files = parser.positionalArguments();
    if (files.size() != 1) {
        throw BadInput(QString("%1 files (expected one, the configuration)").arg(files.size()));
    }
    const BridgeConfig config = BridgeConfig::read(files.first());
    if (parser.isSet(check)) {
        output::line(QString("%1: %2 links, fine").arg(files.first()).arg(config.links.size()));
        return exitcode::success;
    }
    return serve(config);
}

} // namespace

// What is thrown here is caught here: libraries throw what std::exception is the base of.
// NOLINTNEXTLINE(bugprone-exception-escape)
int main(int argc, char** argv)
{
    std::signal(SIGPIPE, SIG_IGN); // lost output is noticed where it is written
    const QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName("coremanage-bridge");
    const auto fail = [](const std::exception& error, int code) {
        output::error(QString("coremanage-bridge: ") + QString::fromUtf8(error.what()));
        return code;
    };
    try {
        return run();
    } catch (const ToolError& error) {
        return fail(error, error.code());
    } catch (const std::exception& error) {
        return fail(error, exitcode::failed);
    }
}
