// SPDX-License-Identifier: MIT
#include "commands.h"

#include "link.h"
#include "linknotes.h"
#include "output.h"
#include "recordtext.h"
#include "toolerror.h"

#include <QElapsedTimer>

namespace
{

struct Listen {
    LinkOptions link;
    Duration duration;
    bool json = false;
    qint64 shown = 0;
    QElapsedTimer clock;

    int run();
    bool look(DeviceLink& open, const Interrupt& interrupt);
    void show(const Reply& reply) const;
    void showRefusals(const Interrupt& interrupt) const;
};

void Listen::show(const Reply& reply) const
{
    if (json) {
        output::json(reply.json);
    } else {
        output::line(recordtext::timeOfDay() + ' ' + reply.line);
    }
}

void Listen::showRefusals(const Interrupt& interrupt) const
{
    for (const Refusal& refusal : linknotes::takeRefusals()) {
        if (interrupt.happened()) {
            return;
        }
        output::error(recordtext::timeOfDay() + " refused: " + refusal.text(link.link()));
    }
}

bool Listen::look(DeviceLink& open, const Interrupt& interrupt)
{
    for (const Reply& reply : open.takeReplies()) {
        if (duration.reached(shown) || interrupt.happened()) {
            return true;
        }
        ++shown;
        show(reply);
    }
    showRefusals(interrupt);
    for (QString text = open.warning(); !text.isEmpty(); text = open.warning()) {
        output::error(recordtext::timeOfDay() + ' ' + text);
    }
    output::progress(QString("listening, %1 replies, %2 s").arg(shown).arg(clock.elapsed() / 1000));
    return duration.reached(shown) || !open.problem().isEmpty();
}

int Listen::run()
{
    const auto target = link.target();
    link.startLog();
    const Interrupt interrupt;
    const auto open = target->open(false);
    clock.start();
    output::error(QString("listening on %1; Ctrl-C ends it").arg(link.link()));
    waitFor([&] { return look(*open, interrupt); }, duration.limit(), interrupt);
    output::endProgress();
    output::error(QString("%1 replies in %2 s")
                      .arg(shown)
                      .arg(static_cast<double>(clock.elapsed()) / 1000.0));
    if (!open->problem().isEmpty()) {
        throw ToolError(open->wasOpen() ? exitcode::failed : exitcode::linkDown,
                        link.link() + ": " + open->problem());
    }
    return duration.fellShort(shown, interrupt.happened()) ? exitcode::failed : exitcode::success;
}

} // namespace

void commands::addListen(CLI::App& application, int& code)
{
    auto* parser = application.add_subcommand("listen", "Show replies as they come, one line each");
    const auto listen = std::make_shared<Listen>();
    listen->link.addTo(*parser);
    listen->duration.addTo(*parser, "replies");
    parser->add_flag("--json", listen->json, "print one JSON object a line");
    parser->footer("Links:\n" + linkregistry::help().toStdString() +
                   "\nCtrl-C ends it. On udp:// every sender is listened to.\n"
                   "\nExamples:\n"
                   "  coremanage listen udp://192.168.1.20:1000\n"
                   "  coremanage listen udp://192.168.1.20 --json --for 60 > replies.jsonl\n"
                   "  coremanage listen osd://10.0.0.5 osd://10.0.0.6\n"
                   "\nExit codes: 0 ended as asked (with --count: so many came), 1 fewer came or\n"
                   "the link was lost, 2 wrong input, 3 the link could not be opened.");
    parser->callback([listen, &code] { code = listen->run(); });
}
