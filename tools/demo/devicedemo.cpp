// SPDX-License-Identifier: MIT
#include "devicedemo.h"

#include "linknotes.h"
#include "linkregistry.h"
#include "narrator.h"
#include "output.h"
#include "recordtext.h"
#include "toolerror.h"
#include "waiting.h"

#include <algorithm>

namespace
{

constexpr std::chrono::milliseconds replyTime{2000};
constexpr std::chrono::milliseconds shortReplyTime{400};
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
    /// \a askedLength is the block length that a command asks for, where it must ask.
    Stage(Narrator& teller, Simulation& simulatedDevice, DeviceLink& openLink, quint8 askedLength)
        : narrator(teller), simulator(simulatedDevice), link(openLink), asked(askedLength)
    {
        QObject::connect(&simulator, &Simulation::exchanged, &simulator,
                         [this](const Exchange& exchange) { exchanges.push_back(exchange); });
    }

    /// Sends and waits for \a count replies; true if they came.
    bool exchange(const Command& command, int count, std::chrono::milliseconds limit)
    {
        replies.clear();
        narrator.detail(QStringLiteral("host   -> device  %1")
                            .arg(recordtext::frameText(link.frameOf(command))));
        link.send(command);
        const WaitEnd end = waitForReplies(count, limit);
        for (const Reply& reply : replies) {
            narrator.detail(QStringLiteral("device -> host    ") + reply.line);
        }
        return end == WaitEnd::Done;
    }

    WaitEnd waitForReplies(int count, std::chrono::milliseconds limit)
    {
        return waitFor(
            [&] {
                for (Reply& reply : link.takeReplies()) {
                    replies.push_back(std::move(reply));
                }
                return static_cast<int>(replies.size()) >= count;
            },
            limit, narrator.interrupt());
    }

    /// Whether the last reply is what the device sent last, byte for byte.
    bool blockArrivedWhole() const
    {
        return !exchanges.empty() && !replies.empty() && !replies.back().block.isEmpty() &&
               exchanges.back().answer.back().bytes.contains(replies.back().block);
    }

    void plain()
    {
        narrator.say(QStringLiteral("A command and its reply"));
        const bool came = exchange(commandOf(0x10, 0x02), 1, replyTime);
        narrator.expect(came && !exchanges.empty() &&
                            replies.front().json.value(QStringLiteral("cmd")).toInt() == 0x10,
                        QStringLiteral("the reply came back decoded"));
    }

    void withBlock(quint8 code, quint8 subCode, const QString& about)
    {
        narrator.say(about);
        Command command = commandOf(code, subCode);
        command.record.DAT3 = asked;
        const bool came = exchange(command, 1, replyTime);
        narrator.expect(came && blockArrivedWhole(),
                        QStringLiteral("the block arrived whole, %1 bytes")
                            .arg(replies.empty() ? 0 : replies.back().block.size()));
    }

    void recovers(Fault fault, const QString& about, const QString& refusal)
    {
        narrator.say(about);
        Faults::Setting once;
        once.count = 1;
        simulator.setFault(fault, once);
        linknotes::takeRefusals();
        const Command command = commandOf(0x20, 0x01);
        const bool first = exchange(command, 1, shortReplyTime);
        QStringList refusals = linknotes::takeRefusals();
        waitFor(
            [&] {
                refusals += linknotes::takeRefusals();
                return refusal.isEmpty() || refusals.contains(refusal);
            },
            replyTime, narrator.interrupt());
        const bool struck =
            !exchanges.empty() && exchanges.back().faults == std::vector<Fault>{fault};
        for (const QString& seen : refusals) {
            narrator.detail(QStringLiteral("refused           ") + seen);
        }
        narrator.expect(!first && struck && (refusal.isEmpty() || refusals.contains(refusal)),
                        QStringLiteral("no reply was taken for one; the host sends again"));
        narrator.expect(exchange(command, 1, replyTime),
                        QStringLiteral("the second try got its reply"));
    }

    void inABurst(int burst, std::chrono::milliseconds limit)
    {
        narrator.say(QStringLiteral("%1 commands as fast as they go").arg(burst));
        replies.clear();
        const auto before = exchanges.size();
        for (int i = 0; i < burst; ++i) {
            Command command = commandOf(0x30, 0x00);
            command.record.DAT2 = static_cast<quint8>(i);
            link.send(command);
            waitForReplies(i, std::chrono::milliseconds(0));
            output::progress(QStringLiteral("%1 of %2 sent").arg(i + 1).arg(burst));
        }
        waitForReplies(burst, limit);
        output::endProgress();
        narrator.expect(static_cast<int>(replies.size()) == burst &&
                            static_cast<int>(exchanges.size() - before) == burst,
                        QStringLiteral("%1 replies came").arg(replies.size()));
    }

private:
    Narrator& narrator;
    Simulation& simulator;
    DeviceLink& link;
    quint8 asked;
    std::vector<Exchange> exchanges;
    std::vector<Reply> replies;
};

} // namespace

bool devicedemo::run(Narrator& narrator, const QString& place, Pace pace)
{
    const auto simulator = linkregistry::endpoint(place)->simulate({});
    if (!simulator->open()) {
        throw LinkDown(QStringLiteral("%1: %2").arg(place, simulator->error()));
    }
    narrator.expect(true, QStringLiteral("a simulated device serves at ") + simulator->address());
    const auto endpoint = linkregistry::endpoint(simulator->address());
    const auto link = endpoint->open(false);
    const bool isBinary = endpoint->fields() == FieldSet::BinaryHead;
    Stage stage(narrator, *simulator, *link, isBinary ? binaryBlock : 0);
    const std::function<void()> steps[] = {
        [&] { stage.plain(); },
        [&] {
            stage.withBlock(0x8b, 0x05, QStringLiteral("A reply with a block of fixed length"));
        },
        [&] {
            stage.withBlock(0x8e, 0x27,
                            QStringLiteral("A reply that announces its block's length"));
        },
        [&] { stage.recovers(Fault::Drop, QStringLiteral("The device loses one answer"), {}); },
        [&] {
            stage.recovers(Fault::WrongChecksum, QStringLiteral("One reply arrives damaged"),
                           isBinary ? QString() // that line drops it without a word
                                    : QStringLiteral("a reply with a wrong checksum"));
        },
        [&] { stage.inABurst(pace.burst, pace.limit); },
    };
    for (const auto& step : steps) {
        if (!narrator.interrupt().happened()) {
            step();
        }
    }
    return narrator.allAsSaid();
}
