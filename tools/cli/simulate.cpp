// SPDX-License-Identifier: MIT
#include "commands.h"

#include "commandfields.h"
#include "duration.h"
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

constexpr qint64 mostAnnounced = 32767;

QStringList faultNames(const Exchange& exchange)
{
    QStringList names;
    for (const Fault fault : exchange.faults) {
        names << Faults::name(fault);
    }
    return names;
}

class Simulate
{
public:
    explicit Simulate(CLI::App& application);

    CLI::App* parser;
    int run();

private:
    SimulatedDevice::Settings settings() const;
    void show(const Exchange& exchange) const;
    void showJson(const Exchange& exchange) const;
    QString bodyOf(const Exchange& exchange) const;
    QJsonObject fieldsOf(const Exchange& exchange) const;
    std::unique_ptr<Simulation> simulation();
    void summarise(const Simulation& simulator, qint64 elapsed) const;

    std::string link;
    std::string seed = "1";
    std::string announced = "64";
    std::vector<std::string> faults;
    Duration duration;
    bool shortBlock = false;
    bool json = false;
    bool quiet = false;
    FieldSet fields = FieldSet::TextBody;
    qint64 commands = 0;
    qint64 spoiled = 0;
};

Simulate::Simulate(CLI::App& application)
    : parser(application.add_subcommand("simulate", "Be a device, with faults on demand"))
{
    parser->add_option("link", link, "where to be found; port 0: a free one")
        ->type_name("LINK")
        ->required();
    parser->add_option("--fault", faults, "NAME=10% or NAME=3, see below; may come several times")
        ->type_name("FAULT")
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    parser->add_option("--seed", seed, "the same seed and commands give the same answers (1)")
        ->type_name("N");
    parser
        ->add_option("--announced", announced,
                     "length of an announced block, if the command asks for none (64)")
        ->type_name("N");
    parser->add_flag("--short-block", shortBlock, "33 bytes instead of 129 for 0x69 0x09");
    duration.addTo(*parser, "commands");
    parser->add_flag("--json", json, "print one JSON object a line");
    parser->add_flag("-q,--quiet", quiet, "show no commands, only where it is and the summary");
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
        "\nCtrl-C ends it. Exit codes: 0 ended as asked, 1 fewer commands came than --count or\n"
        "the medium was lost, 2 wrong input, 3 the link could not be opened.");
}

SimulatedDevice::Settings Simulate::settings() const
{
    SimulatedDevice::Settings chosen;
    chosen.seed = static_cast<quint64>(
        typed::number(QStringLiteral("--seed"), seed, 0, std::numeric_limits<qint64>::max()));
    chosen.announcedLength =
        static_cast<int>(typed::number(QStringLiteral("--announced"), announced, 1, mostAnnounced));
    chosen.shortBlock = shortBlock;
    for (const std::string& fault : faults) {
        const QString wrong = chosen.faults.parse(QString::fromStdString(fault));
        if (!wrong.isEmpty()) {
            throw BadInput(QStringLiteral("--fault: ") + wrong);
        }
    }
    return chosen;
}

QString Simulate::bodyOf(const Exchange& exchange) const
{
    const devicecodec::Head& head = exchange.command.head;
    const QByteArray& block = exchange.command.block;
    if (fields == FieldSet::OsdFrame) {
        const Command command = recordtext::osdCommand(block);
        return (recordtext::line(command, fields) + QLatin1Char(' ') +
                recordtext::blockSummary(command.osd.arryData, "data"))
            .trimmed();
    }
    const auto hex = [](quint8 byte) {
        return QStringLiteral("%1").arg(byte, 2, 16, QLatin1Char('0'));
    };
    return (QStringLiteral("CMD %1 DAT %2 %3 %4 %5 ")
                .arg(hex(head.cmd), hex(head.dat1), hex(head.dat2), hex(head.dat3),
                     hex(head.dat4)) +
            recordtext::blockSummary(block))
        .trimmed();
}

void Simulate::show(const Exchange& exchange) const
{
    QStringList sizes;
    for (const Emission& emission : exchange.answer) {
        sizes << QString::number(emission.bytes.size());
    }
    QString answer = sizes.isEmpty() ? QStringLiteral("nothing")
                                     : sizes.join(QStringLiteral("+")) + QStringLiteral(" bytes");
    if (exchange.times > 1) {
        answer += QStringLiteral(" x%1").arg(exchange.times);
    }
    const QStringList struck = faultNames(exchange);
    if (!struck.isEmpty()) {
        answer += QStringLiteral(" [%1]").arg(struck.join(QStringLiteral(", ")));
    }
    output::line(
        QStringLiteral("%1 %2 -> %3").arg(recordtext::timeOfDay(), bodyOf(exchange), answer));
}

QJsonObject Simulate::fieldsOf(const Exchange& exchange) const
{
    if (fields == FieldSet::OsdFrame) {
        return recordtext::json(recordtext::osdCommand(exchange.command.block), fields);
    }
    const devicecodec::Head& head = exchange.command.head;
    Command command;
    model_Protocoldata& record = command.record;
    record.HEAD = head.head;
    record.ADDR = head.addr;
    record.CMD = head.cmd;
    record.DAT1 = head.dat1;
    record.DAT2 = head.dat2;
    record.DAT3 = head.dat3;
    record.DAT4 = head.dat4;
    record.CHKSUM = head.sum;
    record.aux1 = head.lead;
    record.aux3 = head.aux3;
    record.aux4 = head.aux4;
    record.aux5 = head.aux5;
    record.aux6 = head.blockLength;
    record.arryDatablock = exchange.command.block;
    QJsonObject object = recordtext::json(command, fields);
    object.insert(QStringLiteral("block"), QString::fromLatin1(record.arryDatablock.toHex()));
    return object;
}

void Simulate::showJson(const Exchange& exchange) const
{
    QJsonObject object = fieldsOf(exchange);
    QJsonArray answer;
    for (const Emission& emission : exchange.answer) {
        answer.append(QString::fromLatin1(emission.bytes.toHex()));
    }
    object.insert(QStringLiteral("answer"), answer);
    object.insert(QStringLiteral("times"), exchange.times);
    object.insert(QStringLiteral("faults"), QJsonArray::fromStringList(faultNames(exchange)));
    output::line(recordtext::oneLine(object));
}

void Simulate::summarise(const Simulation& simulator, qint64 elapsed) const
{
    output::error(QStringLiteral("%1 commands in %2 s, %3 answers with faults, %4 bytes sent, %5 "
                                 "bytes that were no command")
                      .arg(commands)
                      .arg(static_cast<double>(elapsed) / 1000.0)
                      .arg(spoiled)
                      .arg(simulator.bytesSent())
                      .arg(simulator.noise()));
}

std::unique_ptr<Simulation> Simulate::simulation()
{
    const auto chosen = settings();
    const auto target = linkregistry::target(QString::fromStdString(link));
    fields = target->fields();
    const QStringList unfit = chosen.faults.unfit(target->faulty());
    if (!unfit.isEmpty()) {
        throw BadInput(QStringLiteral("--fault: \"%1\" has no %2: leave it out")
                           .arg(QString::fromStdString(link), unfit.join(QStringLiteral(", "))));
    }
    return target->simulate(chosen);
}

int Simulate::run()
{
    duration.read();
    const Interrupt interrupt;
    const auto simulator = simulation();
    if (!simulator->open()) {
        throw LinkDown(
            QStringLiteral("%1: %2").arg(QString::fromStdString(link), simulator->error()));
    }
    QString lostBecause;
    QObject::connect(simulator.get(), &Simulation::lost, simulator.get(),
                     [&lostBecause](const QString& reason) { lostBecause = reason; });
    QObject::connect(simulator.get(), &Simulation::exchanged, simulator.get(),
                     [this](const Exchange& exchange) {
                         ++commands;
                         spoiled += exchange.faults.empty() ? 0 : 1;
                         if (!quiet) {
                             json ? showJson(exchange) : show(exchange);
                         }
                     });
    output::line(json ? recordtext::oneLine({{QStringLiteral("simulating"), simulator->address()}})
                      : QStringLiteral("a simulated device at ") + simulator->address());
    if (!simulator->hint().isEmpty()) {
        output::error(simulator->hint());
    }
    QElapsedTimer clock;
    clock.start();
    const auto over = [&] {
        output::progress(QStringLiteral("%1 commands").arg(commands));
        return !lostBecause.isEmpty() || (duration.reached(commands) && simulator->isIdle());
    };
    waitFor(over, duration.limit(), interrupt);
    output::endProgress();
    summarise(*simulator, clock.elapsed());
    if (!lostBecause.isEmpty()) {
        throw ToolError(exitcode::failed, lostBecause);
    }
    return duration.fellShort(commands, interrupt.happened()) ? exitcode::failed
                                                              : exitcode::success;
}

} // namespace

commands::Subcommand commands::addSimulate(CLI::App& application)
{
    const auto simulate = std::make_shared<Simulate>(application);
    return {simulate->parser, [simulate] { return simulate->run(); }};
}
