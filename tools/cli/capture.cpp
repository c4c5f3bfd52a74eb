// SPDX-License-Identifier: MIT
#include "commands.h"

#include "linknotes.h"
#include "options.h"
#include "output.h"
#include "toolerror.h"

#include <QElapsedTimer>

namespace
{

struct Capture {
    LinkOptions linkOptions;
    CommandFields fields;
    Duration duration;
    bool quiet = false;

    int run();

private:
    using Links = std::vector<std::unique_ptr<DeviceLink>>;
    QString problemOf(const Links& open) const;
    QString capture();
    void say(const QString& text) const;
};

void Capture::say(const QString& text) const
{
    if (!quiet) {
        output::error(text);
    }
}

QString Capture::problemOf(const Links& open) const
{
    for (const auto& link : open) {
        link->takeReplies();
        if (const QString problem = link->problem(); !problem.isEmpty()) {
            return linkOptions.link() + ": " + problem;
        }
    }
    return linkOptions.capture.file().error();
}

// What ended it, if the person has not.
QString Capture::capture()
{
    std::vector<Command> commands;
    const auto targets = linkOptions.targets();
    for (const auto& [name, target] : targets) {
        if (!fields.isEmpty()) {
            commands.push_back(fields.read(target->kind().fields));
            target->check(commands.back());
        }
    }
    linkOptions.startLog();
    const Interrupt interrupt;
    Links open;
    for (const auto& [name, target] : targets) {
        linkOptions.capture.watch(name);
        open.push_back(target->open(false));
    }
    say(QString("capturing %1; Ctrl-C ends it").arg(linkOptions.link()));
    for (std::size_t i = 0; i < commands.size(); ++i) {
        open[i]->send(commands[i]);
    }
    QString problem;
    const CaptureFile& file = linkOptions.capture.file();
    const auto isOver = [&] {
        problem = problemOf(open);
        output::progress(QString("%1 packets").arg(file.written()));
        return !problem.isEmpty() || duration.reached(file.written());
    };
    waitFor(isOver, duration.limit(), interrupt);
    output::endProgress();
    return interrupt.happened() ? QString() : problem;
}

int Capture::run()
{
    if (!linkOptions.capture.isGiven()) {
        throw BadInput("--write is missing: give a file, or - for standard output");
    }
    QElapsedTimer clock;
    clock.start();
    const QString problem = capture(); // the links are closed then, and a second Ctrl-C ends all
    const qint64 written = linkOptions.capture.finish();
    say(QString("%1 packets in %2 s")
            .arg(written)
            .arg(static_cast<double>(clock.elapsed()) / 1000.0));
    if (!problem.isEmpty()) {
        throw ToolError(exitcode::failed, problem);
    }
    return exitcode::success;
}

} // namespace

void commands::addCapture(CLI::App& application, int& code)
{
    auto* parser =
        application.add_subcommand("capture", "Write what happens on links for Wireshark");
    const auto capture = std::make_shared<Capture>();
    capture->linkOptions.addTo(*parser);
    capture->fields.addTo(*parser);
    capture->duration.addTo(*parser, "packets");
    parser->add_flag("-q,--quiet", capture->quiet, "say nothing but what goes wrong");
    parser->footer(
        "Links, also several of different kinds:\n" + linkregistry::help().toStdString() +
        "\nA command that is given is sent once, when the links are open. Ctrl-C ends it.\n"
        "\nExamples:\n"
        "  coremanage capture udp://192.168.1.20 serial:///dev/ttyUSB0 -w wire.pcap\n"
        "  coremanage capture udp://192.168.1.20 --cmd 0x10 -w - | wireshark -k -i -\n"
        "  coremanage send udp://192.168.1.20 --cmd 0x10 -w wire.pcap\n"
        "\nExit codes: 0 ended as asked, 1 a link was lost or the file has not all of it,\n"
        "2 wrong input, 3 a link could not be opened.");
    parser->callback([capture, &code] { code = capture->run(); });
}
