// SPDX-License-Identifier: MIT
#include "commands.h"

#include "linknotes.h"
#include "options.h"
#include "output.h"
#include "recordtext.h"
#include "toolerror.h"

#include <QElapsedTimer>
#include <QJsonArray>

#include <algorithm>

namespace
{

constexpr int refusalsShown = 5;
constexpr qint64 progressAfterMs = 300; // a quick reply shows none

struct Send {
    LinkOptions linkOptions;
    CommandFields fields;
    std::vector<std::string> to;
    bool broadcast = false;
    bool json = false;
    qint64 timeoutMs = 2000;
    qint64 tries = 1;
    qint64 repliesGiven = 0; // --replies; 0: not given

    int run();

private:
    void prepare();
    qint64 repliesOf(const QString& device) const;
    bool hasReplied(const QString& device) const
    {
        return wanted > 0 && repliesOf(device) >= wanted;
    }
    QString troubleOf(const QString& device) const;
    bool enough() const;
    bool isOver() const;
    QStringList silentDevices() const;
    WaitEnd waitForReplies(const Interrupt& interrupt);
    void takeReplies();
    int report(WaitEnd end) const;
    void print() const;
    void printJson(bool ok) const;
    QString failure(WaitEnd end) const;
    QString failuresOfDevices() const;

    QString link; // as written
    std::unique_ptr<LinkTarget> target;
    DeviceLink* open = nullptr; // while run runs
    Command command;
    qint64 wanted = 1;   // replies, of each device; 0: as many as come
    QStringList devices; // that are each to reply; an empty name: whoever does
    std::vector<Reply> replies;
    QStringList strangers; // who else answered
    qint64 tried = 0;
    qint64 elapsedMs = 0;
};

// Everything that can be wrong input, before the link is opened.
void Send::prepare()
{
    if (timeoutMs == 0 && (tries > 1 || repliesGiven > 0)) {
        throw BadInput(QString("%1: --timeout 0 waits for no reply: leave one of them out")
                           .arg(tries > 1 ? "--tries" : "--replies"));
    }
    wanted = repliesGiven > 0 ? repliesGiven : broadcast ? 0 : 1;
    link = linkOptions.link();
    target = linkOptions.target();
    command = fields.read(target->kind().fields);
    command.record.sendMode = broadcast ? 1 : 0;
    for (const std::string& address : to) {
        command.to << QString::fromStdString(address);
    }
    target->check(command);
    linkOptions.startLog();
}

void Send::takeReplies()
{
    for (Reply& reply : open->takeReplies()) {
        if (open->isFromDevice(reply)) {
            replies.push_back(std::move(reply));
        } else if (!strangers.contains(reply.from)) {
            strangers << reply.from;
        }
    }
}

qint64 Send::repliesOf(const QString& device) const
{
    return std::count_if(replies.begin(), replies.end(), [&device](const Reply& reply) {
        return device.isEmpty() || reply.from == device;
    });
}

QString Send::troubleOf(const QString& device) const
{
    return device.isEmpty() ? open->problem() : open->trouble(device);
}

bool Send::enough() const
{
    return std::all_of(devices.begin(), devices.end(),
                       [this](const QString& one) { return hasReplied(one); });
}

// Nothing more is to be expected.
bool Send::isOver() const
{
    return std::all_of(devices.begin(), devices.end(), [this](const QString& one) {
        return hasReplied(one) || !troubleOf(one).isEmpty();
    });
}

QStringList Send::silentDevices() const
{
    QStringList silent;
    for (const QString& device : devices) {
        if (repliesOf(device) == 0 && troubleOf(device).isEmpty()) {
            silent << device;
        }
    }
    return silent;
}

WaitEnd Send::waitForReplies(const Interrupt& interrupt)
{
    QElapsedTimer clock;
    clock.start();
    const auto sent = [this] {
        takeReplies();
        return !open->isSending();
    };
    if (open->isSending() && waitFor(sent, forEver, interrupt) == WaitEnd::Interrupted) {
        return WaitEnd::Interrupted;
    }
    const auto replied = [&] {
        takeReplies();
        if (clock.elapsed() > progressAfterMs) {
            output::progress(QString("waiting for a reply, %1 of %2 s")
                                 .arg(clock.elapsed() / 1000)
                                 .arg(static_cast<double>(timeoutMs) / 1000.0));
        }
        return isOver();
    };
    const WaitEnd end = waitFor(replied, std::chrono::milliseconds(timeoutMs), interrupt);
    output::endProgress();
    elapsedMs += clock.elapsed();
    return end;
}

int Send::run()
{
    prepare();
    const Interrupt interrupt;
    const auto owner = target->open(broadcast);
    open = owner.get();
    devices = command.to.isEmpty() ? open->devices() : command.to;
    if (devices.isEmpty()) {
        devices << QString();
    }
    WaitEnd end = WaitEnd::TimeOut;
    while (end == WaitEnd::TimeOut && tried < tries) {
        command.to = silentDevices();
        if (command.to.isEmpty()) {
            break;
        }
        ++tried;
        open->send(command);
        if (linknotes::takeSendFailure()) {
            throw ToolError(exitcode::failed,
                            QString("%1: the system did not take it: not sent; is the "
                                    "network up, the device there?")
                                .arg(link));
        }
        end = waitForReplies(interrupt);
    }
    return report(end);
}

QString Send::failuresOfDevices() const
{
    QStringList failures;
    for (const QString& device : devices) {
        const qint64 count = repliesOf(device);
        const QString trouble = troubleOf(device);
        if (count >= wanted || (timeoutMs == 0 && trouble.isEmpty())) {
            continue;
        }
        const QString missing =
            count == 0 ? "no reply" : QString("only %1 of %2 replies").arg(count).arg(wanted);
        failures << device + ' ' +
                        (trouble.isEmpty()
                             ? QString("gave %1 within %2 ms").arg(missing).arg(timeoutMs)
                             : trouble);
    }
    return failures.join("; ");
}

QString refusedText(const QString& link)
{
    const std::vector<Refusal> refusals = linknotes::takeRefusals();
    QStringList shown;
    for (const Refusal& refusal : refusals) {
        if (shown.size() == refusalsShown) {
            shown << QString("%1 more").arg(static_cast<int>(refusals.size()) - refusalsShown);
            break;
        }
        shown << refusal.text(link);
    }
    return shown.isEmpty() ? QString() : "; came but refused: " + shown.join(", ");
}

QString Send::failure(WaitEnd end) const
{
    if (!devices.contains(QString()) && end != WaitEnd::Interrupted) {
        return failuresOfDevices();
    }
    if (!open->problem().isEmpty()) {
        return link + ": " + open->problem();
    }
    QString text = QString("%1: no reply within %2 ms").arg(link).arg(timeoutMs);
    if (end == WaitEnd::Interrupted) {
        text = QString("%1: interrupted before a reply came").arg(link);
    } else if (!replies.empty()) {
        text = QString("%1: only %2 of %3 replies within %4 ms")
                   .arg(link)
                   .arg(replies.size())
                   .arg(wanted)
                   .arg(timeoutMs);
    } else if (tried > 1) {
        text += QString(", %1 tries").arg(tried);
    }
    text += refusedText(link);
    if (!strangers.isEmpty()) {
        text += "; replies of others: " + strangers.join(", ");
    }
    return text;
}

int Send::report(WaitEnd end) const
{
    const bool isSent = std::all_of(devices.begin(), devices.end(), [this](const QString& one) {
        return troubleOf(one).isEmpty();
    });
    const bool ok = (timeoutMs == 0 && isSent) || enough() || (wanted == 0 && !replies.empty());
    if (!open->wasOpen() && end != WaitEnd::Interrupted) {
        throw LinkDown(failure(end));
    }
    if (json) {
        printJson(ok);
    } else {
        print();
    }
    if (!ok) {
        throw ToolError(exitcode::failed, failure(end));
    }
    return exitcode::success;
}

void Send::print() const
{
    const QByteArray frame = recordtext::frame(command, target->kind().fields);
    output::line("sent " + recordtext::frameText(frame));
    for (const Reply& reply : replies) {
        output::line("reply from " + reply.line);
        output::raw(recordtext::dump(reply.block).toUtf8());
    }
}

void Send::printJson(bool ok) const
{
    QJsonArray array;
    for (const Reply& reply : replies) {
        array.append(reply.json);
    }
    const FieldSet set = target->kind().fields;
    QJsonObject sent = recordtext::json(recordtext::framed(command, set), set);
    sent.insert("frame", QString::fromLatin1(recordtext::frame(command, set).toHex()));
    QJsonObject object{{"ok", ok},       {"link", link},
                       {"tries", tried}, {"elapsed_ms", elapsedMs},
                       {"sent", sent},   {"replies", array}};
    if (!devices.contains(QString())) {
        QJsonArray endpoints;
        for (const QString& device : devices) {
            endpoints.append(QJsonObject{{"address", device},
                                         {"replies", repliesOf(device)},
                                         {"trouble", open->trouble(device)}});
        }
        object.insert("endpoints", endpoints);
    }
    output::json(object);
}

} // namespace

void commands::addSend(CLI::App& application, int& code)
{
    constexpr qint64 timeoutLimitMs = 3'600'000;
    constexpr qint64 triesLimit = 1000;
    constexpr qint64 repliesLimit = 1000000;
    auto* parser = application.add_subcommand("send", "Send one command and show the reply");
    const auto send = std::make_shared<Send>();
    send->linkOptions.addTo(*parser);
    send->fields.addTo(*parser);
    parser->add_flag("--broadcast", send->broadcast,
                     "send to every device of the network, not to LINK's address, and show who "
                     "answers until the time-out");
    parser->add_option("--to", send->to, "only to these of several endpoints, by address")
        ->type_name("ADDRESS")
        ->delimiter(',');
    options::addNumber(*parser, "--timeout", send->timeoutMs, 0, timeoutLimitMs,
                       "wait for a reply, ms; 0: do not wait (2000)", "MS");
    options::addNumber(*parser, "--tries", send->tries, 1, triesLimit,
                       "send again up to so many times in all (1)");
    options::addNumber(*parser, "--replies", send->repliesGiven, 1, repliesLimit,
                       "wait for so many replies, of each endpoint (1; --broadcast: all)");
    parser->add_flag("--json", send->json, "print one JSON object");
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
    parser->callback([send, &code] { code = send->run(); });
}
