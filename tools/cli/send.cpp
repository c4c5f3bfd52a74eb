// SPDX-License-Identifier: MIT
#include "commands.h"

#include "commandlist.h"
#include "conversation.h"
#include "options.h"
#include "output.h"
#include "recordtext.h"
#include "sendrun.h"
#include "toolerror.h"

#include <algorithm>

namespace
{

struct Send {
    LinkOptions linkOptions;
    CommandFields fields;
    std::string raw;
    std::string file;
    std::vector<std::string> to;
    Conversation::Terms terms;
    sendrun::Settings many;
    qint64 everyMs = -1;        // -1: not given
    qint64 commandsASecond = 0; // 0: not given

    int run();

private:
    bool sendsMany() const;
    void readCommands();
    void prepare();
    void sendOne(DeviceLink& open, const Interrupt& interrupt) const;
    void print(const Outcome& outcome) const;

    std::unique_ptr<LinkTarget> target;
};

bool Send::sendsMany() const
{
    return !file.empty() || everyMs >= 0 || commandsASecond > 0 || many.duration.isGiven();
}

void Send::readCommands()
{
    if ((!raw.empty() || !file.empty()) && !fields.isEmpty()) {
        throw BadInput(QString("%1: it has all that is sent: leave the fields out")
                           .arg(raw.empty() ? "--file" : "--raw"));
    }
    if (!file.empty()) {
        many.commands = commandlist::read("--file", QString::fromStdString(file), terms.fields);
        return;
    }
    Command command;
    if (!raw.empty()) {
        command.raw = typed::bytes("--raw", QString::fromStdString(raw), typed::fileLimit);
    }
    many.commands = {command.raw.isEmpty() ? fields.read(terms.fields) : command};
}

// Everything that can be wrong input, before the link is opened.
void Send::prepare()
{
    if (terms.timeoutMs == 0 && (terms.tries > 1 || terms.replies > 0)) {
        throw BadInput(QString("%1: --timeout 0 waits for no reply: leave one of them out")
                           .arg(terms.tries > 1 ? "--tries" : "--replies"));
    }
    terms.link = linkOptions.link();
    target = linkOptions.target();
    terms.fields = target->kind().fields;
    readCommands();
    for (Command& command : many.commands) {
        command.record.sendMode = terms.broadcast ? 1 : 0;
        for (const std::string& address : to) {
            command.to << QString::fromStdString(address);
        }
        target->check(command);
    }
    many.repeats = file.empty() || many.duration.isGiven();
    many.intervalMs = commandsASecond > 0 ? 1000.0 / static_cast<double>(commandsASecond)
                                          : static_cast<double>(std::max<qint64>(everyMs, 0));
    linkOptions.startLog();
}

int Send::run()
{
    prepare();
    const Interrupt interrupt;
    terms.silence = Silence::watch(target->places());
    const auto open = target->open(terms.broadcast);
    if (sendsMany()) {
        sendrun::run(*open, terms, many, interrupt);
    } else {
        sendOne(*open, interrupt);
    }
    return exitcode::success;
}

void Send::sendOne(DeviceLink& open, const Interrupt& interrupt) const
{
    Conversation conversation(open, terms, interrupt);
    const Outcome outcome = conversation.exchange(many.commands.front());
    const bool wasOpen = open.wasOpen() || outcome.interrupted;
    if (!many.json && wasOpen && outcome.sent) {
        print(outcome);
    }
    const QJsonObject object = conversation.json(many.commands.front(), outcome);
    if (!outcome.ok()) {
        throw ToolError(wasOpen ? exitcode::failed : exitcode::linkDown, outcome.failure, object);
    }
    if (many.json) {
        output::result(object);
    }
}

void Send::print(const Outcome& outcome) const
{
    const QByteArray frame = recordtext::frame(many.commands.front(), terms.fields);
    output::line("sent " + recordtext::frameText(frame), output::Tone::Faint);
    for (const Reply& reply : outcome.replies) {
        output::line("reply from " + reply.line, output::Tone::Good);
        output::raw(recordtext::dump(reply.block).toUtf8());
    }
}

} // namespace

void commands::addSend(CLI::App& application, int& code)
{
    constexpr qint64 timeoutLimitMs = 3'600'000;
    constexpr qint64 rateLimit = 100000;
    constexpr qint64 triesLimit = 1000;
    constexpr qint64 repliesLimit = 1000000;
    auto* parser = application.add_subcommand("send", "Send commands and show the replies");
    const auto send = std::make_shared<Send>();
    send->linkOptions.addTo(*parser);
    send->fields.addTo(*parser);
    auto* raw = parser->add_option("--raw", send->raw,
                                   "bytes to send as they are: @FILE, or hexadecimal digits");
    raw->type_name("")->group("Command");
    parser
        ->add_option("--file", send->file,
                     "the commands of a file, JSON lines or CSV; - is "
                     "standard input")
        ->type_name("FILE")
        ->excludes(raw)
        ->group("Command");
    parser->add_flag("--broadcast", send->terms.broadcast,
                     "send to every device of the network, not to LINK's address, and show who "
                     "answers until the time-out");
    parser->add_option("--to", send->to, "only to these of several endpoints, by address")
        ->type_name("ADDRESS")
        ->delimiter(',');
    options::addNumber(*parser, "--timeout", send->terms.timeoutMs, 0, timeoutLimitMs,
                       "wait for a reply, ms; 0: do not wait (2000)", "MS");
    options::addNumber(*parser, "--tries", send->terms.tries, 1, triesLimit,
                       "send again up to so many times in all (1)");
    options::addNumber(*parser, "--replies", send->terms.replies, 1, repliesLimit,
                       "wait for so many replies, of each endpoint (1; --broadcast: all)");
    send->many.duration.addTo(*parser, "commands");
    auto* every = options::addNumber(*parser, "--every", send->everyMs, 0, timeoutLimitMs,
                                     "send again and again, so far apart, ms", "MS");
    send->many.time.addTo(*parser);
    options::addNumber(*parser, "--rate", send->commandsASecond, 1, rateLimit,
                       "so many commands a second at most")
        ->excludes(every);
    parser->add_flag("--json", send->many.json,
                     "print one JSON object; of many commands one a line, and a last one");
    parser->add_flag("-q,--quiet", send->many.quiet, "of many commands, show only the summary");
    parser->footer("Links:\n" + linkregistry::help().toStdString() +
                   "\nNumbers are decimal, or hexadecimal after 0x.\n"
                   "\nExamples:\n"
                   "  coremanage send udp://192.168.1.20:1000 --cmd 0x8b --dat1 5\n"
                   "  coremanage send udp://192.168.1.20 --cmd 0x9a --block @firmware.bin\n"
                   "  coremanage send udp://192.168.1.20 --cmd 1 --tries 3 --timeout 500 --json\n"
                   "  coremanage send udp://192.168.1.20 --raw 3c54303130323033\n"
                   "  coremanage send udp://192.168.1.20 --cmd 1 --every 1000 --count 10\n"
                   "  coremanage send udp://192.168.1.20 --file commands.csv --rate 50\n"
                   "  coremanage send udp://255.255.255.255 --cmd 1 --broadcast\n"
                   "  coremanage send osd://10.0.0.5 osd://10.0.0.6 --ch2 1 --text 'Gate 7'\n"
                   "\nExit codes: 0 replied (or sent, with --timeout 0), 1 no reply or not sent,\n"
                   "2 wrong input and nothing sent, 3 the link could not be opened. Several\n"
                   "endpoints: 0 all did, 1 some did not, 3 none could be reached. Many\n"
                   "commands: 0 all were answered, 1 some were not.");
    parser->callback([send, &code] { code = send->run(); });
}
