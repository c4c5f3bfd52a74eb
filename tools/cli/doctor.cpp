// SPDX-License-Identifier: MIT
#include "commands.h"

#include "examination.h"
#include "options.h"
#include "output.h"
#include "toolerror.h"

namespace
{

struct Doctor {
    LinkOptions link;
    bool json = false;

    int run() const;

private:
    void show(const LinkPlace& place, const Finding& finding) const;
};

const char* nameOf(Finding::State state)
{
    return state == Finding::State::Fine   ? "fine"
           : state == Finding::State::Note ? "note"
                                           : "WRONG";
}

void Doctor::show(const LinkPlace& place, const Finding& finding) const
{
    const QString state = QLatin1String(nameOf(finding.state));
    if (json) {
        output::json({{"link", link.link()},
                      {"device", place.device},
                      {"state", state.toLower()},
                      {"what", finding.what},
                      {"mend", finding.mend}});
        return;
    }
    const QString whose = place.device.isEmpty() ? QString() : place.device + ": ";
    output::line(QString("%1 %2%3").arg(state, -5).arg(whose, finding.what));
    if (!finding.mend.isEmpty()) {
        for (const QString& line : finding.mend.split('\n')) {
            output::line("      " + line);
        }
    }
}

int Doctor::run() const
{
    int wrong = 0;
    for (const LinkPlace& place : link.target()->places()) {
        for (const Finding& finding : examination::of(place)) {
            show(place, finding);
            wrong += finding.state == Finding::State::Wrong ? 1 : 0;
        }
    }
    return wrong == 0 ? exitcode::success : exitcode::failed;
}

} // namespace

void commands::addDoctor(CLI::App& application, int& code)
{
    auto* parser = application.add_subcommand(
        "doctor", "Look at what may keep a link silent, and say how to mend it; sends nothing");
    const auto doctor = std::make_shared<Doctor>();
    doctor->link.addTo(*parser);
    parser->add_flag("--json", doctor->json, "print one JSON object a line");
    parser->footer("It looks at rights, who has the port, the network and its firewall, and opens\n"
                   "no device. As root it sees more: other users' programs, firewall rules.\n"
                   "\nExamples:\n"
                   "  coremanage doctor serial:///dev/ttyUSB0\n"
                   "  coremanage doctor udp://192.168.1.20 --json\n"
                   "\nExit codes: 0 nothing is wrong, 1 something is, 2 wrong input.");
    parser->callback([doctor, &code] { code = doctor->run(); });
}
