// SPDX-License-Identifier: MIT
#include "commands.h"

#include "arrivals.h"
#include "link.h"
#include "linknotes.h"
#include "linkstats.h"
#include "linkwatchers.h"
#include "output.h"
#include "recordtext.h"
#include "silence.h"
#include "toolerror.h"

#include <QElapsedTimer>

namespace
{

enum Shown { Plain, WithBlock, Refused }; // the values of --kind, in their order

// The options that choose what is shown.
class Choice
{
public:
    void addTo(CLI::App& app)
    {
        const auto add = [&app](const char* name, std::vector<std::string>& values,
                                const char* help, const char* type) {
            app.add_option(name, values, help)->type_name(type)->delimiter(',');
        };
        add("--cmd", cmdsGiven, "show only replies with these command codes", "CODE");
        add("--from", sendersGiven, "show only what comes from these senders", "ADDRESS");
        add("--kind", kindsGiven,
            "show only these: replies without a block (plain) or with one (block), and what is "
            "refused (refused)",
            "KIND");
    }

    // Throws BadInput.
    void prepare()
    {
        for (const std::string& text : cmdsGiven) {
            constexpr qint64 most = 255;
            cmds << static_cast<int>(typed::number("--cmd", QString::fromStdString(text), 0, most));
        }
        for (const std::string& text : sendersGiven) {
            senders << QString::fromStdString(text);
        }
        const QStringList known{"plain", "block", "refused"};
        for (const std::string& text : kindsGiven) {
            const QString name = QString::fromStdString(text);
            kinds << static_cast<int>(known.indexOf(name));
            if (kinds.back() < 0) {
                throw BadInput("--kind", name, known.join(", "));
            }
        }
    }

    bool has(const Reply& reply) const
    {
        return (cmds.isEmpty() || cmds.contains(reply.json.value("cmd").toInt(-1))) &&
               isOf(reply.from, reply.block.isEmpty() ? Plain : WithBlock);
    }

    bool has(const Arrivals::Piece& piece) const
    {
        return senders.isEmpty() || senders.contains(piece.from);
    }

    bool has(const Refusal& refusal) const { return isOf(refusal.from, Refused); }

private:
    bool isOf(const QString& from, Shown kind) const
    {
        return (senders.isEmpty() || senders.contains(from)) &&
               (kinds.isEmpty() || kinds.contains(kind));
    }

    std::vector<std::string> cmdsGiven;
    std::vector<std::string> sendersGiven;
    std::vector<std::string> kindsGiven;
    QList<int> cmds; // of these lists, an empty one chooses all
    QStringList senders;
    QList<int> kinds;
};

struct Listen {
    LinkOptions link;
    Duration duration;
    Choice choice;
    LineTime time;
    bool json = false;
    bool hex = false; // instead of replies and what is refused
    const std::shared_ptr<Arrivals> arrivals = std::make_shared<Arrivals>();
    bool stats = false; // instead of the replies
    std::shared_ptr<LinkStats> counted;
    std::shared_ptr<Silence> silence;
    qint64 shown = 0;
    QElapsedTimer clock;

    int run();
    QString unit() const { return hex ? "pieces" : "replies"; }
    bool look(DeviceLink& open, const Interrupt& interrupt);
    template <class Thing>
    bool lookAt(const std::vector<Thing>& things, const Interrupt& interrupt);
    void show(const Reply& reply);
    void show(const Arrivals::Piece& piece);
    void showRefusals(const Interrupt& interrupt);
    void showNoise(bool last = false);
    void showStats(const std::vector<LinkStats::Row>& rows, const QString& of) const;
};

void Listen::show(const Arrivals::Piece& piece)
{
    if (json) {
        output::json({{"time", recordtext::zonedTime(LineTime::local(piece.time))},
                      {"from", piece.from},
                      {"length", piece.bytes.size()},
                      {"bytes", QString::fromLatin1(piece.bytes.toHex())}});
        return;
    }
    output::line(QString("%1 %2 %3 bytes")
                     .arg(time.text(piece.time), piece.from.isEmpty() ? link.link() : piece.from)
                     .arg(piece.bytes.size()));
    output::raw(recordtext::dump(piece.bytes).toUtf8());
}

void Listen::show(const Reply& reply)
{
    if (json) {
        output::json(reply.json);
    } else {
        output::line(time.text() + ' ' + reply.line);
    }
}

void Listen::showRefusals(const Interrupt& interrupt)
{
    for (const Refusal& refusal : linknotes::takeRefusals()) {
        if (interrupt.happened()) {
            return;
        }
        if (choice.has(refusal)) {
            output::error(time.text() + " refused: " + refusal.text(link.link()),
                          output::Tone::Notable);
        }
    }
}

// Whether that is enough.
template <class Thing>
bool Listen::lookAt(const std::vector<Thing>& things, const Interrupt& interrupt)
{
    for (const Thing& thing : things) {
        if (duration.reached(shown) || interrupt.happened()) {
            return true;
        }
        if (choice.has(thing)) {
            ++shown;
            if (!stats) {
                show(thing);
            }
        }
    }
    return false;
}

void Listen::showNoise(bool last)
{
    const QString noise = silence->takeNoise(last);
    if (!noise.isEmpty()) {
        output::error(time.text() + ' ' + noise, output::Tone::Notable);
    }
}

void Listen::showStats(const std::vector<LinkStats::Row>& rows, const QString& of) const
{
    for (const LinkStats::Row& row : rows) {
        json ? output::json(row.json()) : output::line(of + ' ' + row.text());
    }
}

bool Listen::look(DeviceLink& open, const Interrupt& interrupt)
{
    const std::vector<Reply> replies = open.takeReplies();
    if (stats) {
        counted->taken(replies);
        showStats(counted->takeRows(), time.text());
    }
    if (hex ? lookAt(arrivals->take(), interrupt) : lookAt(replies, interrupt)) {
        return true;
    }
    if (!hex) {
        showRefusals(interrupt);
        showNoise();
    }
    for (QString text = open.warning(); !text.isEmpty(); text = open.warning()) {
        output::error(time.text() + ' ' + text, output::Tone::Notable);
    }
    output::progress(
        QString("listening, %1 %2, %3 s").arg(shown).arg(unit()).arg(clock.elapsed() / 1000));
    return duration.reached(shown) || !open.problem().isEmpty();
}

int Listen::run()
{
    choice.prepare();
    const auto target = link.target();
    link.startLog();
    const Interrupt interrupt;
    if (hex) {
        linkwatchers::add(arrivals);
    }
    silence = Silence::watch(target->places());
    counted = stats ? LinkStats::watch(link.link(), target->places()) : nullptr;
    const auto open = target->open(false);
    clock.start();
    output::error(QString("listening on %1; Ctrl-C ends it").arg(link.link()));
    waitFor([&] { return look(*open, interrupt); }, duration.limit(), interrupt);
    output::endProgress();
    if (!hex) {
        showNoise(true);
    }
    if (stats) {
        showStats(counted->totals(), "in all");
    }
    output::error(QString("%1 %2 in %3 s%4")
                      .arg(shown)
                      .arg(unit())
                      .arg(static_cast<double>(clock.elapsed()) / 1000.0)
                      .arg(shown == 0 ? silence->cause({}, ": ") : QString()));
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
    listen->choice.addTo(*parser);
    parser
        ->add_flag("--hex", listen->hex,
                   "show all bytes as they come, in hexadecimal, instead of replies")
        ->excludes(parser->get_option("--cmd"))
        ->excludes(parser->get_option("--kind"));
    listen->time.addTo(*parser);
    listen->duration.addTo(*parser, "replies");
    parser->add_flag("--json", listen->json, "print one JSON object a line");
    parser->add_flag("--stats", listen->stats,
                     "show, for each link and second, how many replies came and what was wrong, "
                     "instead of the replies");
    parser->footer("Links:\n" + linkregistry::help().toStdString() +
                   "\nCtrl-C ends it. On udp:// every sender is listened to.\n"
                   "\nExamples:\n"
                   "  coremanage listen udp://192.168.1.20:1000\n"
                   "  coremanage listen udp://192.168.1.20 --json --for 60 > replies.jsonl\n"
                   "  coremanage listen udp://192.168.1.20 --cmd 0x8b,0x8e --kind block\n"
                   "  coremanage listen serial:///dev/ttyUSB0 --hex --time difference\n"
                   "  coremanage listen osd://10.0.0.5 osd://10.0.0.6\n"
                   "\nExit codes: 0 ended as asked (with --count: so many came), 1 fewer came or\n"
                   "the link was lost, 2 wrong input, 3 the link could not be opened.");
    parser->callback([listen, &code] { code = listen->run(); });
}
