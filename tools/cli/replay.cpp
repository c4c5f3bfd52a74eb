// SPDX-License-Identifier: MIT
#include "commands.h"

#include "linknotes.h"
#include "linkwatchers.h"
#include "options.h"
#include "output.h"
#include "recording.h"
#include "recordtext.h"
#include "toolerror.h"

#include <QElapsedTimer>

#include <mutex>

namespace
{

constexpr std::chrono::milliseconds surplusTime{100}; // for what comes behind the last answer

/// What comes from the device that was sent to, in one piece. Any thread.
class Incoming : public LinkObserver
{
public:
    void onEvent(const LinkEvent& event) override
    {
        const std::lock_guard guard(lock);
        if (event.kind == LinkEvent::Kind::Sent) {
            device = event.peer;
        } else if (event.kind == LinkEvent::Kind::Received && event.peer == device) {
            bytes += event.bytes;
        }
    }

    QByteArray::size_type size() const
    {
        const std::lock_guard guard(lock);
        return bytes.size();
    }

    /// What came; all of it, or only \a expected where it begins with that.
    QByteArray take(const QByteArray& expected)
    {
        const std::lock_guard guard(lock);
        return bytes.startsWith(expected) ? takeFirst(expected.size()) : takeFirst(bytes.size());
    }

    QByteArray takeAll()
    {
        const std::lock_guard guard(lock);
        return takeFirst(bytes.size());
    }

private:
    QByteArray takeFirst(QByteArray::size_type count)
    {
        QByteArray taken = bytes.left(count);
        bytes.remove(0, count);
        return taken;
    }

    mutable std::mutex lock; // a leaf
    QString device;          // its address
    QByteArray bytes;
};

struct Replay {
    std::string file;
    std::string recorded;
    LinkOptions linkOptions;
    double speed = 1;
    bool fast = false;
    bool json = false;
    qint64 timeoutMs = 2000;

    int run();

private:
    bool wait(const std::function<bool()>& condition, std::chrono::nanoseconds limit);
    void play(const Recording::Step& step);
    void judge(const QByteArray& frame, const QByteArray& expected, const QByteArray& came);
    int report() const;

    Recording recording;
    std::shared_ptr<Incoming> incoming = std::make_shared<Incoming>();
    DeviceLink* open = nullptr;           // while run runs
    const Interrupt* interrupt = nullptr; // the same
    QElapsedTimer clock;                  // since the first command
    std::size_t played = 0;
    qint64 same = 0;
    bool isDifferent = false;
};

// Whether the condition has come true.
bool Replay::wait(const std::function<bool()>& condition, std::chrono::nanoseconds limit)
{
    const auto over = [&] {
        open->takeReplies();
        output::progress(QString("%1 of %2 commands")
                             .arg(played)
                             .arg(static_cast<qint64>(recording.steps.size())));
        return condition() || !open->problem().isEmpty();
    };
    const auto milliseconds = std::chrono::ceil<std::chrono::milliseconds>(limit);
    const WaitEnd end = waitFor(over, milliseconds, *interrupt);
    if (end == WaitEnd::Interrupted || !open->problem().isEmpty()) {
        output::endProgress();
        throw ToolError(exitcode::failed,
                        QString("%1: %2 after %3 of %4 commands")
                            .arg(linkOptions.link(),
                                 end == WaitEnd::Interrupted ? "interrupted" : open->problem())
                            .arg(played)
                            .arg(static_cast<qint64>(recording.steps.size())));
    }
    return end == WaitEnd::Done;
}

void Replay::judge(const QByteArray& frame, const QByteArray& expected, const QByteArray& came)
{
    same += came == expected ? 1 : 0;
    isDifferent = isDifferent || came != expected;
    if (json) {
        output::json({{"command", static_cast<qint64>(played)},
                      {"frame", QString::fromLatin1(frame.toHex())},
                      {"same", came == expected},
                      {"recorded", QString::fromLatin1(expected.toHex())},
                      {"received", QString::fromLatin1(came.toHex())}});
    } else if (came != expected) {
        const auto shown = [](const QByteArray& bytes) {
            return bytes.isEmpty()
                       ? QString("nothing")
                       : QString("%1 bytes %2").arg(bytes.size()).arg(recordtext::frameText(bytes));
        };
        output::line(QString(frame.isEmpty() ? "behind command %1%2: recorded %3, received %4"
                                             : "command %1 %2: recorded %3, received %4")
                         .arg(played)
                         .arg(recordtext::frameText(frame), shown(expected), shown(came)));
    }
}

// The next command is not sent before the answer has come: a device that is slower than it was is
// no other device.
void Replay::play(const Recording::Step& step)
{
    if (!fast && played > 0) {
        const auto due = std::chrono::duration_cast<std::chrono::nanoseconds>(step.at / speed);
        wait([] { return false; }, std::max(due - std::chrono::nanoseconds(clock.nsecsElapsed()),
                                            std::chrono::nanoseconds(0)));
    }
    ++played;
    const Command command = recordtext::command(step.command, recording.fields);
    open->send(command);
    if (played == 1) {
        clock.start();
    }
    if (linknotes::takeSendFailure()) {
        throw ToolError(exitcode::failed,
                        QString("%1: the system did not take command %2: not sent")
                            .arg(linkOptions.link())
                            .arg(played));
    }
    wait([this] { return !open->isSending(); }, forEver);
    const QByteArray expected = step.answerBytes();
    wait([&] { return incoming->size() >= expected.size(); }, std::chrono::milliseconds(timeoutMs));
    judge(recordtext::frame(command, recording.fields), expected, incoming->take(expected));
}

int Replay::report() const
{
    output::error(QString("%1 commands in %2 s, %3 answers as recorded")
                      .arg(played)
                      .arg(static_cast<double>(clock.elapsed()) / 1000.0)
                      .arg(same));
    return isDifferent ? exitcode::failed : exitcode::success;
}

int Replay::run()
{
    const auto target = linkOptions.target();
    const QString link = linkOptions.link();
    recording =
        Recording::read(QString::fromStdString(file), CaptureRecord::mediumOf(link.toUtf8()),
                        recorded.empty() ? link : QString::fromStdString(recorded));
    if (recording.steps.empty()) {
        throw BadInput(QString("%1: no command was recorded").arg(QString::fromStdString(file)));
    }
    linkOptions.startLog();
    const Interrupt watched;
    interrupt = &watched;
    linkwatchers::add(incoming);
    const auto owner = target->open(false);
    open = owner.get();
    for (const Recording::Step& step : recording.steps) {
        play(step);
    }
    if (wait([this] { return incoming->size() > 0; }, surplusTime)) {
        judge({}, {}, incoming->takeAll());
    }
    output::endProgress();
    return report();
}

} // namespace

void commands::addReplay(CLI::App& application, int& code)
{
    constexpr qint64 timeoutLimitMs = 3'600'000;
    auto* parser = application.add_subcommand(
        "replay", "Send recorded commands again and compare what comes back");
    const auto replay = std::make_shared<Replay>();
    parser->add_option("file", replay->file, "what coremanage capture has written")
        ->type_name("FILE")
        ->required();
    replay->linkOptions.addTo(*parser);
    auto* speed =
        parser->add_option("--speed", replay->speed, "so many times as fast as recorded (1)")
            ->type_name("N")
            ->check(CLI::Range(0.001, 1000.0));
    parser->add_flag("--fast", replay->fast, "each command as soon as the answer before has come")
        ->excludes(speed);
    options::addNumber(*parser, "--timeout", replay->timeoutMs, 0, timeoutLimitMs,
                       "wait so long for each recorded answer, ms (2000)", "MS");
    parser
        ->add_option("--recorded", replay->recorded,
                     "which link of the file, if it has several of this kind (LINK)")
        ->type_name("NAME");
    parser->add_flag("--json", replay->json, "print one JSON object for each command");
    parser->footer("Links:\n" + linkregistry::help().toStdString() +
                   "\nPrints what differs from the recorded answers.\n"
                   "\nExamples:\n"
                   "  coremanage replay wire.pcap udp://192.168.1.20\n"
                   "  coremanage replay wire.pcap serial:///dev/ttyUSB0 --fast\n"
                   "  coremanage replay wire.pcap udp://192.168.1.20 --speed 10 --json\n"
                   "\nExit codes: 0 every answer is as recorded, 1 some are not, or the link was\n"
                   "lost, 2 wrong input and nothing sent, 3 the link could not be opened.");
    parser->callback([replay, &code] { code = replay->run(); });
}
