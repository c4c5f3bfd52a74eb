// SPDX-License-Identifier: MIT
#include "narrator.h"
#include "osdlink.h"
#include "osdsimulation.h"
#include "recordtext.h"
#include "toolerror.h"

#include <functional>
#include <memory>

namespace
{

constexpr Faults::Setting once{0, 1, 0};
constexpr Faults::Setting always{1.0, 0, 0};
constexpr int wallSize = 3;
constexpr int leaving = 1; // the endpoint that goes away

QString ipOf(int number)
{
    return QString("127.0.0.%1").arg(number + 1);
}

class Wall
{
public:
    explicit Wall(Narrator& teller) : narrator(teller) {}

    void serve()
    {
        std::vector<OsdLink::Endpoint> places;
        for (int i = 0; i < wallSize; ++i) {
            endpoints.push_back(std::make_unique<OsdSimulation>(QHostAddress(ipOf(i)), quint16(0),
                                                                SimulatedDevice::Settings{}));
            OsdSimulation& endpoint = *endpoints.back();
            if (!endpoint.open()) {
                throw LinkDown(QString("osd://%1: %2").arg(ipOf(i), endpoint.error()));
            }
            narrator.expect(true, "a simulated endpoint serves at " + endpoint.address());
            places.push_back(
                {ipOf(i), static_cast<quint16>(endpoint.address().section(':', -1).toUInt())});
        }
        link = std::make_unique<OsdLink>(places);
    }

    void sayHello()
    {
        narrator.say("One record to all of them");
        sendToAll("Gate 7");
        expectReplies({0, 1, 2});
    }

    void answerInPieces()
    {
        narrator.say("One answers in pieces, one late, one with noise before");
        endpoints[0]->setFault(Fault::Split, {0, 1, 20});
        endpoints[1]->setFault(Fault::Delay, {0, 1, 300});
        endpoints[2]->setFault(Fault::Garbage, once);
        sendToAll("Boarding");
        expectReplies({0, 1, 2});
    }

    void oneVanishes()
    {
        narrator.say(QString("%1 goes away; the others go on").arg(ipOf(leaving)));
        endpoints[leaving]->setFault(Fault::Refuse, always);
        endpoints[leaving]->hangUp();
        const bool noticed = waitUntil([this] { return !link->trouble(ipOf(leaving)).isEmpty(); });
        narrator.expect(noticed, QString("%1 %2").arg(ipOf(leaving), link->trouble(ipOf(leaving))));
        sendToAll("Last call");
        expectReplies({0, 2});
    }

    void itComesBack()
    {
        narrator.say(QString("%1 comes back: close and open").arg(ipOf(leaving)));
        endpoints[leaving]->setFault(Fault::Refuse, {});
        link->reopen(ipOf(leaving));
        sendToAll("Gate closed");
        expectReplies({0, 1, 2});
    }

    void oneIsDeaf()
    {
        narrator.say(QString("%1 never reads; the others go on").arg(ipOf(leaving)));
        endpoints[leaving]->setFault(Fault::NeverRead, always);
        sendToAll("Delayed");
        expectReplies({0, 2});
        endpoints[leaving]->setFault(Fault::NeverRead, {});
        expectReplies({leaving}, "it reads again: ");
    }

private:
    bool waitUntil(const std::function<bool()>& condition)
    {
        const auto look = [&] {
            for (Reply& reply : link->takeReplies()) {
                narrator.detail("endpoint -> host  " + reply.line);
                replies.push_back(std::move(reply));
            }
            return condition();
        };
        return narrator.comes(look);
    }

    void sendToAll(const char* text)
    {
        Command command;
        command.osd.ch2 = 0x01;
        command.osd.ch10 = 0x0d;
        command.osd.arryData = text;
        replies.clear();
        narrator.detail(
            QString("host -> endpoints %1  \"%2\"")
                .arg(recordtext::frameText(recordtext::frame(command, FieldSet::OsdFrame)),
                     QString::fromLatin1(text)));
        link->send(command);
    }

    void expectReplies(const std::vector<int>& from, const QString& why = {})
    {
        QStringList names;
        for (const int endpoint : from) {
            names << ipOf(endpoint);
        }
        const bool came = waitUntil([this, silent = names]() mutable {
            for (const Reply& reply : replies) {
                silent.removeAll(reply.from);
            }
            return silent.isEmpty();
        });
        narrator.expect(came, why + names.join(", ") + " acknowledged");
    }

    Narrator& narrator;
    std::vector<std::unique_ptr<OsdSimulation>> endpoints;
    std::unique_ptr<OsdLink> link;
    std::vector<Reply> replies;
};

} // namespace

void osddemo::run(Narrator& narrator)
{
    Wall wall(narrator);
    wall.serve();
    narrator.run({
        [&] { wall.sayHello(); },
        [&] { wall.answerInPieces(); },
        [&] { wall.oneVanishes(); },
        [&] { wall.itComesBack(); },
        [&] { wall.oneIsDeaf(); },
    });
}
