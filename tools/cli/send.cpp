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

#include <algorithm>
#include <limits>

namespace
{

constexpr qint64 mostMilliseconds = 3'600'000;
constexpr qint64 mostTries = 1000;
constexpr qint64 mostReplies = 1000000;
constexpr int mostRefusalsShown = 5;
constexpr qint64 progressAfter = 300; // ms: a quick reply shows none

class Send
{
public:
    explicit Send(CLI::App& application);

    CLI::App* parser;
    int run();

private:
    void readNumbers();
    Command readCommand(const LinkTarget& target) const;
    qint64 repliesOf(const QString& device) const;
    bool enough() const;
    bool isOver(const DeviceLink& link) const;
    QStringList silentDevices(const DeviceLink& link) const;
    WaitEnd waitForReplies(DeviceLink& link, const Interrupt& interrupt);
    void takeReplies(DeviceLink& link);
    int report(const DeviceLink& link, const Command& command, WaitEnd end);
    void printJson(const DeviceLink& link, const Command& command, bool ok) const;
    QString refused() const;
    QString failure(const DeviceLink& link, WaitEnd end) const;
    QString failuresOfDevices(const DeviceLink& link) const;

    LinkOptions options;
    CommandFields fields;
    std::vector<std::string> to;
    bool broadcast = false;
    bool json = false;
    std::string timeoutText = "2000";
    std::string triesText = "1";
    std::string repliesText;
    std::chrono::milliseconds timeout{0};
    qint64 tries = 1;
    qint64 wanted = 1;

    QStringList devices; // that are each to reply; empty: whoever does
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
                     "send to every device of the network, not to LINK's address, and show who "
                     "answers until the time-out");
    parser->add_option("--to", to, "only to these of several endpoints, by address")
        ->type_name("ADDRESS")
        ->delimiter(',');
    parser->add_option("--timeout", timeoutText, "wait for a reply, ms; 0: do not wait (2000)")
        ->type_name("MS");
    parser->add_option("--tries", triesText, "send again up to so many times in all (1)")
        ->type_name("N");
    parser
        ->add_option("--replies", repliesText,
                     "wait for so many replies, of each endpoint (1; --broadcast: all)")
        ->type_name("N");
    parser->add_flag("--json", json, "print one JSON object");
    parser->footer("Links:\n" + linkregistry::help().toStdString() +
                   "\nNumbers are decimal, or hexadecimal after 0x.\n"
                   "\nExamples:\n"
                   "  coremanage send udp://192.168.1.20:1000 --cmd 0x8b --dat1 5\n"
                   "  coremanage send udp://192.168.1.20 --cmd 0x9a --block @firmware.bin\n"
                   "  coremanage send udp://192.168.1.20 --cmd 1 --tries 3 --timeout 500 --json\n"
                   "  coremanage send udp://255.255.255.255 --cmd 1 --broadcast\n"
                   "  coremanage send osd://10.0.0.5 osd://10.0.0.6 --ch2 1 --text 'Gate 7'\n"
                   "\nExit codes: 0 replied (or sent, with --timeout 0), 1 no reply or not sent,\n"
                   "2 wrong input and nothing sent, 3 the link could not be opened. Several\n"
                   "endpoints: 0 all did, 1 some did not, 3 none could be reached.");
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
    if (timeout.count() == 0 && (tries > 1 || !repliesText.empty())) {
        throw BadInput(
            QStringLiteral("%1: --timeout 0 waits for no reply: leave one of them out")
                .arg(tries > 1 ? QStringLiteral("--tries") : QStringLiteral("--replies")));
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

Command Send::readCommand(const LinkTarget& target) const
{
    Command command = fields.read(target.fields());
    command.record.sendMode = broadcast ? 1 : 0;
    for (const std::string& address : to) {
        command.to << QString::fromStdString(address);
    }
    if (!to.empty() && target.fields() != FieldSet::OsdFrame) {
        throw BadInput(QStringLiteral("--to: only osd:// has several endpoints: leave it out"));
    }
    target.check(command);
    return command;
}

qint64 Send::repliesOf(const QString& device) const
{
    return std::count_if(replies.begin(), replies.end(),
                         [&device](const Reply& reply) { return reply.from == device; });
}

bool Send::enough() const
{
    return devices.isEmpty() ? static_cast<qint64>(replies.size()) >= wanted
                             : std::all_of(devices.begin(), devices.end(), [this](const auto& one) {
                                   return repliesOf(one) >= wanted;
                               });
}

// Nothing more is to be expected.
bool Send::isOver(const DeviceLink& link) const
{
    const bool isLost =
        devices.isEmpty()
            ? !link.problem().isEmpty()
            : std::all_of(devices.begin(), devices.end(), [this, &link](const auto& one) {
                  return repliesOf(one) >= wanted || !link.trouble(one).isEmpty();
              });
    return enough() || isLost;
}

QStringList Send::silentDevices(const DeviceLink& link) const
{
    QStringList silent;
    for (const QString& device : devices) {
        if (repliesOf(device) == 0 && link.trouble(device).isEmpty()) {
            silent << device;
        }
    }
    return silent;
}

WaitEnd Send::waitForReplies(DeviceLink& link, const Interrupt& interrupt)
{
    QElapsedTimer clock;
    clock.start();
    if (link.isSending()) {
        const auto sent = [&] {
            takeReplies(link);
            return !link.isSending();
        };
        if (waitFor(sent, forEver, interrupt) == WaitEnd::Interrupted) {
            return WaitEnd::Interrupted;
        }
    }
    const WaitEnd end = waitFor(
        [&] {
            takeReplies(link);
            if (clock.elapsed() > progressAfter) {
                output::progress(QStringLiteral("waiting for a reply, %1 of %2 s")
                                     .arg(clock.elapsed() / 1000)
                                     .arg(static_cast<double>(timeout.count()) / 1000.0));
            }
            return isOver(link);
        },
        timeout, interrupt);
    output::endProgress();
    elapsed += clock.elapsed();
    return end;
}

int Send::run()
{
    readNumbers();
    const auto target = options.target();
    Command command = readCommand(*target);
    options.startLog();
    const Interrupt interrupt;
    const auto link = target->open(broadcast);
    devices = command.to.isEmpty() ? link->devices() : command.to;
    WaitEnd end = WaitEnd::TimeOut;
    const auto isSilent = [&] {
        command.to = silentDevices(*link);
        return devices.isEmpty() ? replies.empty() : !command.to.isEmpty();
    };
    while (end == WaitEnd::TimeOut && tried < tries && isSilent()) {
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

QString Send::failuresOfDevices(const DeviceLink& link) const
{
    QStringList failures;
    for (const QString& device : devices) {
        const qint64 count = repliesOf(device);
        const QString trouble = link.trouble(device);
        const bool isSent = timeout.count() == 0 && trouble.isEmpty();
        if (count >= wanted || isSent) {
            continue;
        }
        const QString missing =
            count == 0 ? QStringLiteral("no reply")
                       : QStringLiteral("only %1 of %2 replies").arg(count).arg(wanted);
        failures
            << device + QLatin1Char(' ') +
                   (trouble.isEmpty()
                        ? QStringLiteral("gave %1 within %2 ms").arg(missing).arg(timeout.count())
                        : trouble);
    }
    return failures.join(QStringLiteral("; "));
}

QString Send::refused() const
{
    const linknotes::Refusals refusals = linknotes::takeRefusals();
    QStringList shown;
    for (const Refusal& refusal : refusals.kept) {
        if (shown.size() < mostRefusalsShown) {
            shown << refusal.text(options.link());
        }
    }
    const qint64 more = static_cast<qint64>(refusals.kept.size()) - shown.size() + refusals.more;
    if (more > 0) {
        shown << QStringLiteral("%1 more").arg(more);
    }
    return shown.isEmpty()
               ? QString()
               : QStringLiteral("; came but refused: ") + shown.join(QStringLiteral(", "));
}

QString Send::failure(const DeviceLink& link, WaitEnd end) const
{
    if (!devices.isEmpty() && end != WaitEnd::Interrupted) {
        return failuresOfDevices(link);
    }
    if (!link.problem().isEmpty()) {
        return options.link() + QStringLiteral(": ") + link.problem();
    }
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
    text += refused();
    if (!strangers.isEmpty()) {
        text += QStringLiteral("; replies of others: ") + strangers.join(QStringLiteral(", "));
    }
    return text;
}

int Send::report(const DeviceLink& link, const Command& command, WaitEnd end)
{
    const bool every = broadcast && repliesText.empty();
    const bool waits = timeout.count() > 0;
    const bool isSent = std::all_of(devices.begin(), devices.end(), [&link](const auto& one) {
        return link.trouble(one).isEmpty();
    });
    const bool ok = (!waits && isSent) || enough() || (every && !replies.empty());
    if (!link.wasOpen() && end != WaitEnd::Interrupted) {
        throw LinkDown(failure(link, end));
    }
    if (json) {
        printJson(link, command, ok);
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
        throw ToolError(exitcode::failed, failure(link, end));
    }
    return exitcode::success;
}

void Send::printJson(const DeviceLink& link, const Command& command, bool ok) const
{
    QJsonArray array;
    for (const Reply& reply : replies) {
        array.append(reply.json);
    }
    QJsonObject sent = link.jsonOf(command);
    sent.insert(QStringLiteral("frame"), QString::fromLatin1(link.frameOf(command).toHex()));
    QJsonObject object{{QStringLiteral("ok"), ok},       {QStringLiteral("link"), options.link()},
                       {QStringLiteral("tries"), tried}, {QStringLiteral("elapsed_ms"), elapsed},
                       {QStringLiteral("sent"), sent},   {QStringLiteral("replies"), array}};
    QJsonArray endpoints;
    for (const QString& device : devices) {
        endpoints.append(QJsonObject{{QStringLiteral("address"), device},
                                     {QStringLiteral("replies"), repliesOf(device)},
                                     {QStringLiteral("trouble"), link.trouble(device)}});
    }
    if (!endpoints.isEmpty()) {
        object.insert(QStringLiteral("endpoints"), endpoints);
    }
    output::line(recordtext::oneLine(object));
}

} // namespace

commands::Subcommand commands::addSend(CLI::App& application)
{
    const auto send = std::make_shared<Send>(application);
    return {send->parser, [send] { return send->run(); }};
}
