// SPDX-License-Identifier: MIT
#include "commands.h"

#include "answerfile.h"
#include "options.h"
#include "output.h"
#include "recording.h"
#include "recordtext.h"
#include "toolerror.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>
#include <QJsonArray>

#include <limits>
#include <optional>

namespace
{

struct Simulate {
    std::string place;
    std::vector<std::string> faults;
    std::optional<std::string> answers; // a file
    std::string recording;
    SimulatedDevice::Settings settings;
    Duration duration;
    bool json = false;
    bool quiet = false;

    int run();

private:
    std::unique_ptr<Simulation> simulation();
    void readAnswers(const LinkKind& kind);
    void take(const Exchange& exchange);
    void show(const Exchange& exchange) const;
    void showJson(const Exchange& exchange) const;

    FieldSet fields = FieldSet::TextBody;
    qint64 commands = 0;
    qint64 spoiled = 0;
};

QStringList faultNames(const Exchange& exchange)
{
    QStringList names;
    for (const Fault fault : exchange.faults) {
        names << Faults::name(fault);
    }
    return names;
}

void Simulate::show(const Exchange& exchange) const
{
    QStringList sizes;
    for (const Emission& emission : exchange.answer) {
        sizes << QString::number(emission.bytes.size());
    }
    QString answer = sizes.isEmpty() ? "nothing" : sizes.join("+") + " bytes";
    if (exchange.times > 1) {
        answer += QString(" x%1").arg(exchange.times);
    }
    const QStringList struck = faultNames(exchange);
    if (!struck.isEmpty()) {
        answer += QString(" [%1]").arg(struck.join(", "));
    }
    const Command command = recordtext::command(exchange.command, fields);
    output::line(QString("%1 %2 -> %3")
                     .arg(recordtext::timeOfDay(), recordtext::summary(command, fields), answer));
}

void Simulate::showJson(const Exchange& exchange) const
{
    const Command command = recordtext::command(exchange.command, fields);
    QJsonObject object = recordtext::json(command, fields);
    if (fields != FieldSet::OsdFrame) {
        object.insert("block", QString::fromLatin1(command.record.arryDatablock.toHex()));
    }
    QJsonArray answer;
    for (const Emission& emission : exchange.answer) {
        answer.append(QString::fromLatin1(emission.bytes.toHex()));
    }
    object.insert("answer", answer);
    object.insert("times", exchange.times);
    object.insert("faults", QJsonArray::fromStringList(faultNames(exchange)));
    output::json(object);
}

void Simulate::take(const Exchange& exchange)
{
    ++commands;
    spoiled += exchange.faults.empty() ? 0 : 1;
    if (!quiet) {
        json ? showJson(exchange) : show(exchange);
    }
}

void Simulate::readAnswers(const LinkKind& kind)
{
    using devicecodec::Framing;
    const QString path = QString::fromStdString(*answers);
    const QDir directory = QFileInfo(path).dir();
    const auto readFile = [&](const QString& where, const QString& name) {
        return typed::file(path + ": " + where, directory.filePath(name), typed::fileLimit);
    };
    const AnswerFile::Link link{kind.fields == FieldSet::OsdFrame     ? Framing::Osd
                                : kind.fields == FieldSet::BinaryHead ? Framing::Binary
                                                                      : Framing::Text,
                                kind.faulty};
    try {
        settings.answers = std::make_shared<AnswerFile>(
            typed::file("--answers", path, typed::fileLimit), link, readFile);
    } catch (const std::invalid_argument& wrong) {
        throw BadInput(path + ": " + QString::fromUtf8(wrong.what()));
    }
}

std::unique_ptr<Simulation> Simulate::simulation()
{
    for (const std::string& fault : faults) {
        const QString wrong = settings.faults.parse(QString::fromStdString(fault));
        if (!wrong.isEmpty()) {
            throw BadInput("--fault: " + wrong);
        }
    }
    const QString link = QString::fromStdString(place);
    const auto target = linkregistry::target(link);
    fields = target->kind().fields;
    const QStringList unfit = settings.faults.unfit(target->kind().faulty);
    if (!unfit.isEmpty()) {
        throw BadInput(
            QString("--fault: \"%1\" has no %2: leave it out").arg(link, unfit.join(", ")));
    }
    if (answers) {
        readAnswers(target->kind());
    }
    if (!recording.empty()) {
        settings.answers = std::make_shared<RecordedAnswers>(Recording::read(
            QString::fromStdString(recording), CaptureRecord::mediumOf(link.toUtf8()), link));
    }
    QString obstacle = target->simulationObstacle();
    auto simulation = obstacle.isEmpty() ? target->simulate(settings) : nullptr;
    if (simulation && !simulation->open()) {
        obstacle = simulation->error();
    }
    if (!obstacle.isEmpty()) {
        throw LinkDown(QString("%1: %2").arg(link, obstacle));
    }
    return simulation;
}

int Simulate::run()
{
    const Interrupt interrupt;
    const auto simulator = simulation();
    QString lostBecause;
    QObject::connect(simulator.get(), &Simulation::lost, simulator.get(),
                     [&lostBecause](const QString& reason) { lostBecause = reason; });
    QObject::connect(simulator.get(), &Simulation::exchanged, simulator.get(),
                     [this](const Exchange& exchange) { take(exchange); });
    if (json) {
        output::json({{"simulating", simulator->address()}});
    } else {
        output::line("a simulated device at " + simulator->address());
    }
    if (!simulator->hint().isEmpty()) {
        output::error(simulator->hint());
    }
    QElapsedTimer clock;
    clock.start();
    const auto over = [&] {
        output::progress(QString("%1 commands").arg(commands));
        return !lostBecause.isEmpty() || (duration.reached(commands) && simulator->isIdle());
    };
    waitFor(over, duration.limit(), interrupt);
    output::endProgress();
    output::error(QString("%1 commands in %2 s, %3 answers with faults, %4 bytes sent, %5 "
                          "bytes that were no command")
                      .arg(commands)
                      .arg(static_cast<double>(clock.elapsed()) / 1000.0)
                      .arg(spoiled)
                      .arg(simulator->bytesSent())
                      .arg(simulator->noise()));
    if (!lostBecause.isEmpty()) {
        throw ToolError(exitcode::failed, lostBecause);
    }
    return duration.fellShort(commands, interrupt.happened()) ? exitcode::failed
                                                              : exitcode::success;
}

} // namespace

void commands::addSimulate(CLI::App& application, int& code)
{
    constexpr qint64 announcedLimit = 32767;
    auto* parser = application.add_subcommand("simulate", "Be a device, with faults on demand");
    const auto simulate = std::make_shared<Simulate>();
    SimulatedDevice::Settings& settings = simulate->settings;
    parser->add_option("link", simulate->place, "where to be found; port 0: a free one")
        ->type_name("LINK")
        ->required();
    parser
        ->add_option("--fault", simulate->faults,
                     "NAME=10% or NAME=3, see below; may come several times")
        ->type_name("FAULT")
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    auto* answers = parser
                        ->add_option("--answers", simulate->answers,
                                     "JSON file that says what is answered to which command")
                        ->type_name("FILE");
    parser
        ->add_option("--replay", simulate->recording,
                     "answer as the device did that is recorded in this file; see capture")
        ->type_name("FILE")
        ->excludes(answers);
    options::addNumber(*parser, "--seed", settings.seed, 0, std::numeric_limits<qint64>::max(),
                       "the same seed and commands give the same answers (1)");
    options::addNumber(*parser, "--announced", settings.announcedLength, 1, announcedLimit,
                       "length of an announced block, if the command asks for none (64)");
    parser->add_flag("--short-block", settings.shortBlock, "33 bytes instead of 129 for 0x69 0x09");
    simulate->duration.addTo(*parser, "commands");
    parser->add_flag("--json", simulate->json, "print one JSON object a line");
    parser->add_flag("-q,--quiet", simulate->quiet,
                     "show no commands, only where it is and the summary");
    parser->footer(
        "Links:\n" + linkregistry::help().toStdString() + "\nFaults, with their amounts:\n" +
        Faults::help().toStdString() +
        "NAME=10% strikes with that chance, NAME=3 the first three times it can,\n"
        "NAME=10%:250 and NAME=3:250 set the amount.\n"
        "\nExamples:\n"
        "  coremanage simulate udp://127.0.0.1:3005\n"
        "  coremanage simulate udp://0.0.0.0:3005 --fault drop=10% --fault delay=50%:300\n"
        "  coremanage simulate udp://127.0.0.1:0 --fault flood=1:100000 --count 1\n"
        "  coremanage simulate osd://127.0.0.2 --fault split=50%:20 --fault reset=1\n"
        "  coremanage simulate serial:// --answers answers.json\n"
        "\nCtrl-C ends it. Exit codes: 0 ended as asked, 1 fewer commands came than --count or\n"
        "the medium was lost, 2 wrong input, 3 the link could not be opened.");
    parser->callback([simulate, &code] { code = simulate->run(); });
}
