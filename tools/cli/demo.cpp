// SPDX-License-Identifier: MIT
#include "commands.h"

#include "linknotes.h"
#include "linkregistry.h"
#include "narrator.h"
#include "networknamespace.h"
#include "output.h"
#include "scratch.h"
#include "toolerror.h"
#include "toollog.h"
#include "udpports.h"
#include "udptarget.h"
#include "utility_manage.h"

#include <CLI/CLI.hpp>

namespace
{

constexpr qint64 mostScratch = qint64{4} * 1024 * 1024; // the log and the simulated devices' files

class Demo
{
public:
    explicit Demo(CLI::App& application);

    CLI::App* parser;
    int run();

private:
    static void makeRoom(Narrator& narrator);

    std::string log;
    bool verbose = false;
};

Demo::Demo(CLI::App& application)
    : parser(application.add_subcommand("demo", "Watch the links at work with simulated devices"))
{
    parser->add_option("--log", log, "log file of the links (a temporary one)")->type_name("FILE");
    parser->add_flag("-v,--verbose", verbose, "show the library's debug lines on standard error");
    parser->footer("Needs no device, no rights and no network: everything happens on this "
                   "machine's loopback.\n"
                   "\nExit codes: 0 everything happened as it was said, 1 something did not,\n"
                   "2 wrong input, 3 a link could not be opened.");
}

// Replies over UDP come to one fixed port: where another program has it, a network of one's own
// has it free.
void Demo::makeRoom(Narrator& narrator)
{
    switch (networknamespace::raiseLoopback()) {
    case networknamespace::Loopback::IsDown:
        throw LinkDown(
            QStringLiteral("the loopback interface is down: run sudo ip link set lo up"));
    case networknamespace::Loopback::IsUpNow:
        narrator.detail(QStringLiteral("The loopback interface was down: it is up now."));
        break;
    case networknamespace::Loopback::WasUp:
        break;
    }
    const quint16 port = udptarget::localPort();
    if (udpports::isFree(port)) {
        return;
    }
    const QString holder = udpports::holder(port);
    if (!networknamespace::enter()) {
        throw LinkDown(QStringLiteral("local port %1, which replies come to, is taken by %2, and "
                                      "this system allows no network namespace: end that program "
                                      "first")
                           .arg(port)
                           .arg(holder));
    }
    narrator.detail(QStringLiteral("Local port %1, which replies come to, is taken by %2: the demo "
                                   "runs in a network namespace of its own.")
                        .arg(port)
                        .arg(holder));
}

int Demo::run()
{
    if (log.empty()) {
        scratch::require(mostScratch);
        toollog::chooseTemporary();
    } else {
        toollog::choose(QString::fromStdString(log));
    }
    linknotes::install(verbose);
    const Interrupt interrupt;
    Narrator narrator(interrupt);
    makeRoom(narrator);
    for (const LinkKind& kind : linkregistry::kinds()) {
        if (!interrupt.happened()) {
            narrator.say(QStringLiteral("%1://, %2")
                             .arg(QLatin1String(kind.scheme), QLatin1String(kind.describes)));
            kind.demonstrate(narrator);
        }
    }
    output::checkLoss();
    if (interrupt.happened()) {
        throw ToolError(exitcode::failed, QStringLiteral("interrupted"));
    }
    if (!narrator.allAsSaid()) {
        throw ToolError(exitcode::failed, QStringLiteral("not everything happened as it was said"));
    }
    output::line(
        QStringLiteral("\nAll %1 things happened as they were said.").arg(narrator.expectations()));
    return exitcode::success;
}

} // namespace

commands::Subcommand commands::addDemo(CLI::App& application)
{
    const auto demo = std::make_shared<Demo>(application);
    return {demo->parser, [demo] { return demo->run(); }};
}
