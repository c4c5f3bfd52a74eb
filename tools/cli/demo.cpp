// SPDX-License-Identifier: MIT
#include "commands.h"

#include "linknotes.h"
#include "linkregistry.h"
#include "narrator.h"
#include "networknamespace.h"
#include "options.h"
#include "output.h"
#include "sockets.h"
#include "toolerror.h"
#include "toolfiles.h"

#include <QNetworkInterface>

#include <algorithm>

namespace
{

constexpr qint64 roomNeeded = qint64{4} * 1024 * 1024; // the log and the simulated devices' files

struct Demo {
    std::string link;
    std::string log;
    bool verbose = false;

    int run() const;
};

// Replies over UDP come to one fixed port: where another program has it, a network of one's own
// has it free.
void findNetwork(Narrator& narrator, bool forUdp)
{
    const bool wasUp = QNetworkInterface::interfaceFromName("lo").flags() & QNetworkInterface::IsUp;
    if (!networknamespace::raiseLoopback()) {
        throw LinkDown("the loopback interface is down: run sudo ip link set lo up");
    }
    if (!wasUp) {
        narrator.detail("The loopback interface was down: it is up now.");
    }
    const quint16 port = linktargets::localUdpPort();
    if (!forUdp || sockets::isFree(port)) {
        return;
    }
    const QString holder = sockets::holder(port);
    if (!networknamespace::enter()) {
        throw LinkDown(QString("local port %1, which replies come to, is taken by %2, and "
                               "this system allows no network namespace: end that program "
                               "first")
                           .arg(port)
                           .arg(holder));
    }
    narrator.detail(QString("Local port %1, which replies come to, is taken by %2: the demo "
                            "runs in a network namespace of its own.")
                        .arg(port)
                        .arg(holder));
}

struct Show {
    const LinkKind* kind;
    QString place; // of the simulated device

    void run(Narrator& narrator) const
    {
        narrator.say(
            QString("%1://, %2").arg(QLatin1String(kind->scheme), QLatin1String(kind->describes)));
        const QString obstacle = linkregistry::target(place)->simulationObstacle();
        if (!obstacle.isEmpty()) {
            narrator.detail("Not shown: " + obstacle);
        } else if (kind->fields == FieldSet::OsdFrame) {
            osddemo::run(narrator);
        } else {
            devicedemo::run(narrator, *kind, place);
        }
    }
};

// All of them, or the one that is named: "udp", "udp://" or an address for its simulated device.
std::vector<Show> showsFor(const QString& link)
{
    std::vector<Show> shows;
    for (const LinkKind& kind : linkregistry::kinds()) {
        const QString scheme = QLatin1String(kind.scheme);
        if (link.isEmpty() || link == scheme || link == scheme + "://") {
            shows.push_back({&kind, QLatin1String(kind.demoLink)});
        }
    }
    if (shows.empty()) {
        const LinkKind& kind = linkregistry::target(link)->kind();
        if (kind.fields == FieldSet::OsdFrame) {
            throw BadInput("link", link, "osd://: its demo has three endpoints of its own");
        }
        shows.push_back({&kind, link});
    }
    return shows;
}

int Demo::run() const
{
    const std::vector<Show> shown = showsFor(QString::fromStdString(link));
    if (log.empty()) {
        toolfiles::requireRoom(roomNeeded);
        toolfiles::startTemporaryLog();
    } else {
        toolfiles::startLog(QString::fromStdString(log));
    }
    linknotes::install(verbose);
    const Interrupt interrupt;
    Narrator narrator(interrupt);
    const auto shows = [&shown](Faulty whose) {
        return std::any_of(shown.begin(), shown.end(),
                           [whose](const Show& show) { return show.kind->faulty == whose; });
    };
    if (shows(Faulty::Datagrams) || shows(Faulty::Endpoint)) {
        findNetwork(narrator, shows(Faulty::Datagrams));
    }
    for (const Show& show : shown) {
        narrator.run({[&] { show.run(narrator); }});
    }
    output::checkLoss();
    if (interrupt.happened()) {
        throw ToolError(exitcode::failed, "interrupted");
    }
    if (!narrator.allAsSaid()) {
        throw ToolError(exitcode::failed, "not everything happened as it was said");
    }
    output::line(
        QString("\nAll %1 things happened as they were said.").arg(narrator.expectations()));
    return exitcode::success;
}

} // namespace

void commands::addDemo(CLI::App& application, int& code)
{
    auto* parser =
        application.add_subcommand("demo", "Watch the links at work with simulated devices");
    const auto demo = std::make_shared<Demo>();
    parser
        ->add_option("link", demo->link,
                     "only this one: udp, or an address for its simulated device")
        ->type_name("LINK");
    parser->add_option("--log", demo->log, "log file of the links (a temporary one)")
        ->type_name("FILE");
    parser->add_flag("-v,--verbose", demo->verbose,
                     "show the library's debug lines on standard error");
    parser->footer("Needs no device, no rights and no network: everything happens on this "
                   "machine's loopback.\n"
                   "\nExamples:\n"
                   "  coremanage demo\n"
                   "  coremanage demo serial\n"
                   "  coremanage demo udp://127.0.0.1:4000\n"
                   "\nExit codes: 0 everything happened as it was said, 1 something did not,\n"
                   "2 wrong input, 3 a link could not be opened.");
    parser->callback([demo, &code] { code = demo->run(); });
}
