// SPDX-License-Identifier: MIT
#include "commands.h"

#include "commandfields.h"
#include "linknotes.h"
#include "linkoptions.h"
#include "output.h"
#include "recordtext.h"
#include "toolerror.h"
#include "waiting.h"

#include <CLI/CLI.hpp>

#include <QJsonArray>

#include <limits>

namespace
{

constexpr qint64 mostMilliseconds = 3'600'000;
constexpr qint64 mostTries = 1000;
constexpr qint64 mostReplies = 1000000;
constexpr qint64 progressAfter = 300; // ms: a quick reply shows none

class Send
{
public:
    explicit Send(CLI::App& application);

    CLI::App* parser;
    int run();

private:
    void readNumbers();
    bool enough() const { return static_cast<qint64>(replies.size()) >= wanted; }
    WaitEnd waitForReplies(DeviceLink& link, const Interrupt& interrupt);
    void takeReplies(DeviceLink& link);
    int report(const DeviceLink& link, const Command& command, WaitEnd end);
    QString failure(WaitEnd end) const;

    LinkOptions options;
    CommandFields fields;
    bool broadcast = false;
    bool json = false;
    std::string timeoutText = "2000";
    std::string triesText = "1";
    std::string repliesText;
    std::chrono::milliseconds timeout{0};
    qint64 tries = 1;
    qint64 wanted = 1;

    std::vector<Reply> replies;
    QStringList strangers; // who else answered
    qint64 tried = 0;
    qint64 elapsed = 0; // ms
};

Send::Send(CLI::App& application)
    : parser(application.add_subcommand("send", "Send one command and show the reply"))
{
    options.addTo(*parser);
    fields.addTo(*parser);
    parser->add_flag("--broadcast", broadcast,
                     "send to every device of the network and show who answers until the time-out");
    parser->add_option("--timeout", timeoutText, "wait for a reply, ms; 0: do not wait (2000)")
        ->type_name("MS");
    parser->add_option("--tries", triesText, "send again up to so many times in all (1)")
        ->type_name("N");
    parser->add_option("--replies", repliesText, "wait for so many replies (1; --broadcast: all)")
        ->type_name("N");
    parser->add_flag("--json", json, "print one JSON object");
    parser->footer("Links:\n" + linkregistry::help().toStdString() +
                   "\nNumbers are decimal, or hexadecimal after 0x.\n"
                   "\nExamples:\n"
                   "  coremanage send udp://192.168.1.20:1000 --cmd 0x8b --dat1 5\n"
                   "  coremanage send udp://192.168.1.20 --cmd 0x9a --block @firmware.bin\n"
                   "  coremanage send udp://192.168.1.20 --cmd 1 --tries 3 --timeout 500 --json\n"
                   "  coremanage send udp://255.255.255.255 --cmd 1 --broadcast\n"
                   "\nExit codes: 0 replied (or sent, with --timeout 0), 1 no reply or not sent,\n"
                   "2 wrong input and nothing sent, 3 the link could not be opened.");
}

void Send::readNumbers()
{
    timeout = std::chrono::milliseconds(
        typed::number(QStringLiteral("--timeout"), timeoutText, 0, mostMilliseconds));
    tries = typed::number(QStringLiteral("--tries"), triesText, 1, mostTries);
    wanted = broadcast ? std::numeric_limits<qint64>::max() : 1;
    if (!repliesText.empty()) {
        wanted = typed::number(QStringLiteral("--replies"), repliesText, 1, mostReplies);
    }
}

void Send::takeReplies(DeviceLink& link)
{
    for (Reply& reply : link.takeReplies()) {
        if (link.isFromDevice(reply)) {
            replies.push_back(std::move(reply));
        } else if (!strangers.contains(reply.from)) {
            strangers << reply.from;
        }
    }
}

WaitEnd Send::waitForReplies(DeviceLink& link, const Interrupt& interrupt)
{
    QElapsedTimer clock;
    clock.start();
    const WaitEnd end = waitFor(
        [&] {
            takeReplies(link);
            if (clock.elapsed() > progressAfter) {
                output::progress(QStringLiteral("waiting for a reply, %1 of %2 s")
                                     .arg(clock.elapsed() / 1000)
                                     .arg(static_cast<double>(timeout.count()) / 1000.0));
            }
            return enough() || !link.problem().isEmpty();
        },
        timeout, interrupt);
    output::endProgress();
    elapsed += clock.elapsed();
    return end;
}

int Send::run()
{
    readNumbers();
    const auto endpoint = options.endpoint();
    Command command = fields.read(endpoint->fields());
    command.record.sendMode = broadcast ? 1 : 0;
    endpoint->check(command);
    options.startLog();
    const Interrupt interrupt;
    const auto link = endpoint->open(broadcast);
    WaitEnd end = WaitEnd::TimeOut;
    while (end == WaitEnd::TimeOut && replies.empty() && tried < tries) {
        ++tried;
        link->send(command);
        if (linknotes::takeSendFailure()) {
            throw ToolError(exitcode::failed,
                            QStringLiteral("%1: the system did not take it: not sent; is the "
                                           "network up, the device there?")
                                .arg(options.link()));
        }
        end = waitForReplies(*link, interrupt);
    }
    return report(*link, command, end);
}

QString Send::failure(WaitEnd end) const
{
    QString text =
        QStringLiteral("%1: no reply within %2 ms").arg(options.link()).arg(timeout.count());
    if (end == WaitEnd::Interrupted) {
        text = QStringLiteral("%1: interrupted before a reply came").arg(options.link());
    } else if (!replies.empty()) {
        text = QStringLiteral("%1: only %2 of %3 replies within %4 ms")
                   .arg(options.link())
                   .arg(replies.size())
                   .arg(wanted)
                   .arg(timeout.count());
    } else if (tried > 1) {
        text += QStringLiteral(", %1 tries").arg(tried);
    }
    const QStringList refusals = linknotes::takeRefusals();
    if (!refusals.isEmpty()) {
        text += QStringLiteral("; came but refused: ") + refusals.join(QStringLiteral(", "));
    }
    if (!strangers.isEmpty()) {
        text += QStringLiteral("; replies of others: ") + strangers.join(QStringLiteral(", "));
    }
    return text;
}

int Send::report(const DeviceLink& link, const Command& command, WaitEnd end)
{
    const bool every = broadcast && repliesText.empty();
    const bool waits = timeout.count() > 0;
    const bool ok = !waits || enough() || (every && !replies.empty());
    if (json) {
        QJsonArray array;
        for (const Reply& reply : replies) {
            array.append(reply.json);
        }
        QJsonObject sent = link.jsonOf(command);
        sent.insert(QStringLiteral("frame"), QString::fromLatin1(link.frameOf(command).toHex()));
        output::line(recordtext::oneLine({{QStringLiteral("ok"), ok},
                                          {QStringLiteral("link"), options.link()},
                                          {QStringLiteral("tries"), tried},
                                          {QStringLiteral("elapsed_ms"), elapsed},
                                          {QStringLiteral("sent"), sent},
                                          {QStringLiteral("replies"), array}}));
    } else {
        output::line(QStringLiteral("sent %1").arg(recordtext::frameText(link.frameOf(command))));
        for (const Reply& reply : replies) {
            output::line(QStringLiteral("reply from ") + reply.line);
            if (!reply.block.isEmpty()) {
                output::raw(recordtext::dump(reply.block).toUtf8());
            }
        }
    }
    if (!ok) {
        const QString problem = link.problem();
        throw ToolError(exitcode::failed, problem.isEmpty()
                                              ? failure(end)
                                              : options.link() + QStringLiteral(": ") + problem);
    }
    return exitcode::success;
}

} // namespace

commands::Subcommand commands::addSend(CLI::App& application)
{
    const auto send = std::make_shared<Send>(application);
    return {send->parser, [send] { return send->run(); }};
}
