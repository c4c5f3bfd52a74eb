// SPDX-License-Identifier: MIT
#include "bridgeconfig.h"
#include "output.h"
#include "toolerror.h"

#include <CLI/CLI.hpp>

#include <QCoreApplication>

#include <csignal>

namespace
{

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
    return exitcode::failed;
}

} // namespace

int main(int argc, char** argv)
{
    std::signal(SIGPIPE, SIG_IGN); // lost output is noticed where it is written
    const QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName("coremanage-bridge");
    try {
        return run(argc, argv);
    } catch (const ToolError& error) {
        output::error(QString("coremanage-bridge: ") + QString::fromUtf8(error.what()));
        return error.code();
    }
}
