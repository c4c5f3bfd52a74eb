// SPDX-License-Identifier: MIT
#include "commands.h"

#include "toolerror.h"

#include <CLI/CLI.hpp>

#include <QFileInfo>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

#include <unistd.h>

namespace
{

constexpr const char* program = "coremanage-bridge";

struct RunBridge {
    std::string file;
    bool onlyChecks = false;

    [[noreturn]] void run();
};

// Only that program needs the broker's library: the one beside this one, else one in PATH.
void RunBridge::run()
{
    std::string name = program;
    std::string check = "--check";
    char* const arguments[] = {name.data(), file.data(), onlyChecks ? check.data() : nullptr,
                               nullptr};
    const QString self = QFileInfo("/proc/self/exe").canonicalFilePath();
    const QString beside = QFileInfo(self).path() + '/' + program;
    execv(beside.toLocal8Bit().constData(), arguments);
    execvp(program, arguments);
    throw ToolError(exitcode::failed,
                    QString("bridge: %1 cannot be run: %2: sudo apt install %1")
                        .arg(program, QString::fromLocal8Bit(std::strerror(errno))));
}

} // namespace

void commands::addBridge(CLI::App& application, int& /*code*/)
{
    auto* parser = application.add_subcommand("bridge", "Connect links to an MQTT broker");
    const auto bridge = std::make_shared<RunBridge>();
    parser->add_option("file", bridge->file, "the configuration, in JSON")
        ->type_name("FILE")
        ->required();
    parser->add_flag("--check", bridge->onlyChecks,
                     "only say what is wrong with the configuration");
    parser->footer("coremanage-bridge does it, a program of its own.\n"
                   "\nExamples:\n"
                   "  coremanage bridge --check bridge.json\n"
                   "  coremanage bridge bridge.json\n"
                   "\nExit codes: 0 ended as asked, or nothing is wrong, 1 it cannot run, 2 the\n"
                   "configuration is wrong.");
    parser->callback([bridge] { bridge->run(); });
}
