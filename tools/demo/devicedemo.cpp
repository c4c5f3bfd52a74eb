// SPDX-License-Identifier: MIT
#include "linknotes.h"
#include "linkregistry.h"
#include "narrator.h"
#include "output.h"
#include "recordtext.h"
#include "toolerror.h"

#include <QCoreApplication>
#include <QElapsedTimer>

#include <functional>

namespace
{

constexpr qint64 resendLimitMs = 120000;
constexpr quint8 binaryBlock = 100; // bytes; a binary command asks for its block

Command commandOf(quint8 code, quint8 subCode)
{
    Command command;
    command.record.HEAD = 0x5a;
    command.record.ADDR = 0x01;
    command.record.CMD = code;
    command.record.DAT1 = subCode;
    return command;
}

class Stage
{
public:
    Stage(Narrator& teller, Simulation& simulatedDevice, DeviceLink& openLink, FieldSet fieldSet)
        : narrator(teller), simulator(simulatedDevice), link(openLink), fields(fieldSet)
    {
        QObject::connect(&simulator, &Simulation::exchanged, &simulator,
                         [this](const Exchange& exchange) { exchanges.push_back(exchange); });
    }

    void send(const Command& command)
    {
        replies.clear();
        refusals.clear();
        exchanges.clear();
        narrator.detail(QString("host   -> device  %1")
                            .arg(recordtext::frameText(recordtext::frame(command, fields))));
        link.send(command);
    }

    bool comes(const std::function<bool()>& condition)
    {
        return narrator.comes([&] {
            for (Reply& reply : link.takeReplies()) {
                replies.push_back(std::move(reply));
            }
            for (Refusal& refusal : linknotes::takeRefusals()) {
                narrator.detail("refused           " + refusal.text(simulator.address()));
                refusals.push_back(std::move(refusal));
            }
            return condition();
        });
    }

    void showReplies()
    {
        for (const Reply& reply : replies) {
            narrator.detail("device -> host    " + reply.line);
        }
    }

    bool gotOneReply()
    {
        const bool came = comes([this] { return !replies.empty(); });
        showReplies();
        return came && replies.size() == 1 && !exchanges.empty();
    }

    /// Whether the last reply is what the device sent last, byte for byte.
    bool blockArrivedWhole() const
    {
        return !exchanges.empty() && !replies.empty() && !replies.back().block.isEmpty() &&
               exchanges.back().answer.back().bytes.contains(replies.back().block);
    }

    void plain()
    {
        narrator.say("A command and its reply");
        send(commandOf(0x10, 0x02));
        narrator.expect(gotOneReply() && replies.front().json.value("cmd").toInt() == 0x10,
                        "the reply came back decoded");
    }

    // A line gives up a block of which nothing comes for 600 ms, and a machine may be as loaded as
    // that: then the host sends again, as it would to any device.
    void withBlock(quint8 code, quint8 subCode, const QString& about)
    {
        narrator.say(about);
        Command command = commandOf(code, subCode);
        command.record.DAT3 = fields == FieldSet::BinaryHead ? binaryBlock : 0;
        QElapsedTimer clock;
        clock.start();
        do {
            send(command);
            comes([this] { return !replies.empty() || !refusals.empty(); });
        } while (!blockArrivedWhole() && !clock.hasExpired(resendLimitMs) &&
                 !narrator.isInterrupted());
        showReplies();
        narrator.expect(blockArrivedWhole(),
                        QString("the block arrived whole, %1 bytes")
                            .arg(replies.empty() ? 0 : replies.back().block.size()));
    }

    void recovers(Fault fault, const QString& about, const QString& reason)
    {
        narrator.say(about);
        Faults::Setting once;
        once.count = 1;
        simulator.setFault(fault, once);
        const Command command = commandOf(0x20, 0x01);
        const std::size_t refused = reason.isEmpty() ? 0 : 1;
        send(command);
        const bool struck =
            comes([&] { return !exchanges.empty() && refusals.size() >= refused; }) &&
            exchanges.back().faults == std::vector<Fault>{fault};
        narrator.expect(struck && replies.empty() && refusals.size() == refused &&
                            (refused == 0 || refusals.front().reason == reason),
                        "no reply was taken for one; the host sends again");
        send(command);
        narrator.expect(gotOneReply(), "the second try got its reply");
    }

    void inABurst(int burst)
    {
        narrator.say(QString("%1 commands as fast as they go").arg(burst));
        replies.clear();
        exchanges.clear();
        for (int i = 0; i < burst; ++i) {
            Command command = commandOf(0x30, 0x00);
            command.record.DAT2 = static_cast<quint8>(i);
            link.send(command);
            QCoreApplication::processEvents();
            output::progress(QString("%1 of %2 sent").arg(i + 1).arg(burst));
        }
        const auto count = static_cast<std::size_t>(burst);
        comes([&] { return replies.size() >= count && exchanges.size() >= count; });
        output::endProgress();
        narrator.expect(replies.size() == count && exchanges.size() == count,
                        QString("%1 replies came").arg(replies.size()));
    }

private:
    Narrator& narrator;
    Simulation& simulator;
    DeviceLink& link;
    FieldSet fields;
    std::vector<Exchange> exchanges;
    std::vector<Reply> replies;
    std::vector<Refusal> refusals;
};

} // namespace

void devicedemo::run(Narrator& narrator, const LinkKind& kind, const QString& place)
{
    const auto simulator = linkregistry::target(place)->simulate({});
    if (!simulator->open()) {
        throw LinkDown(QString("%1: %2").arg(place, simulator->error()));
    }
    narrator.expect(true, "a simulated device serves at " + simulator->address());
    const auto link = linkregistry::target(simulator->address())->open(false);
    Stage stage(narrator, *simulator, *link, kind.fields);
    narrator.run({
        [&] { stage.plain(); },
        [&] { stage.withBlock(0x8b, 0x05, "A reply with a block of fixed length"); },
        [&] { stage.withBlock(0x8e, 0x27, "A reply that announces its block's length"); },
        [&] { stage.recovers(Fault::Drop, "The device loses one answer", {}); },
        [&] {
            stage.recovers(Fault::WrongChecksum, "One reply arrives damaged",
                           "a reply with a wrong checksum");
        },
        [&] { stage.inABurst(kind.demoBurst); },
    });
}
