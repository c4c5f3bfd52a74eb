// SPDX-License-Identifier: MIT
#include "bridge.h"
#include "linknotes.h"
#include "output.h"
#include "toolerror.h"
#include "toolfiles.h"
#include "waiting.h"

#include <CLI/CLI.hpp>

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

int run(int argc, char** argv)
{
    CLI::App application("Connects links to an MQTT broker", "coremanage-bridge");
    std::string file;
    bool onlyChecks = false;
    application.set_version_flag("--version", COREMANAGE_VERSION);
    application.add_option("file", file, "the configuration, in JSON")
        ->type_name("FILE")
        ->required();
    application.add_flag("--check", onlyChecks, "only say what is wrong with the configuration");
    CLI11_PARSE(application, argc, argv);
    const BridgeConfig config = BridgeConfig::read(QString::fromStdString(file));
    if (onlyChecks) {
        output::line(QString("%1: %2 links, fine")
                         .arg(QString::fromStdString(file))
                         .arg(config.links.size()));
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
        return run(argc, argv);
    } catch (const ToolError& error) {
        return fail(error, error.code());
    } catch (const std::exception& error) {
        return fail(error, exitcode::failed);
    }
}
