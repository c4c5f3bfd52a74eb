// SPDX-License-Identifier: MIT
#include "osdpeer.h"

#include "corefactory.h"
#include "icoreosdbase.h"
#include "numberedreplies.h"

namespace
{

constexpr int endpointAwaitLimit = 24;

// The byte of an acknowledgement stands for one of the newest 256 numbers.
constexpr quint32 mostApart = 128;

// The manager tells of all its endpoints.
class EndpointCounters final : public LinkCounters
{
public:
    explicit EndpointCounters(QString ip) : watched(std::move(ip)) {}

    void onEvent(const LinkEvent& event) override
    {
        if (event.peer == watched) {
            LinkCounters::onEvent(event);
        }
    }

private:
    const QString watched;
};

model_OsdParam command(const QString& ip, quint32 number)
{
    model_OsdParam record;
    record.ch2 = 2;
    record.ch3 = 3;
    record.ch4 = 4;
    record.ch5 = 5;
    record.ch7 = 7;
    record.ch8 = 8;
    record.ch9 = 9;
    record.ch10 = 10;
    record.strIP = ip;
    record.arryData = numberedreplies::noise(static_cast<int>(number % 50), number);
    return record;
}

} // namespace

OsdPeer::OsdPeer(int index, SoakHost& itsHost, quint64 seed)
    : SoakPeer(QStringLiteral("osd %1").arg(index + 1), itsHost, seed),
      ip(QStringLiteral("127.0.1.%1").arg(index + 1)),
      counters(std::make_shared<EndpointCounters>(ip))
{
    gap = 4 * interval;
    restartEvery = 200;
    actions = {
        {"lost", 20, [this] { ledger.expect(++newest, Fate::Never); }},
        {"damaged", 30, [this] { sendNever(random.chance(0.5) ? "O#" : "#K"); }},
        {"noise", 30,
         [this] { put(numberedreplies::noise(1 + random.below(60), 1) + acknowledgement()); }},
        {"split", 30,
         [this] {
             const QByteArray bytes = acknowledgement();
             put(bytes.left(2));
             pause(std::chrono::milliseconds(random.below(40)));
             put(bytes.mid(2));
         }},
        {"in one piece", 30,
         [this] {
             QByteArray bytes;
             for (int left = 2 + random.below(6); left > 0; --left) {
                 bytes += acknowledgement();
             }
             put(bytes);
         }},
    };
}

void OsdPeer::take(const model_OsdParam& record)
{
    QString problem = QStringLiteral("is not what was sent");
    const QByteArray& bytes = record.arryData;
    const auto last = static_cast<quint8>(bytes.isEmpty() ? '\0' : bytes.back());
    const quint32 of = ledger.newestLike(last);
    if (bytes.size() == 3 && bytes.startsWith("OK") && record.ch4 == '\xff' && record.strIP == ip) {
        problem = ledger.arrived(of, false);
    }
    if (!problem.isEmpty()) {
        host.fail(QStringLiteral("%1: acknowledgement %2 %3").arg(name).arg(of).arg(problem));
    }
}

void OsdPeer::open()
{
    openedBefore = counters->events(LinkEvent::Kind::Opened);
    host.perform([this] {
        CoreFactory::iOsdCore->addObserver(counters);
        CoreFactory::iOsdCore->openClient(ip, listener.port());
    });
    awaitConnection();
}

void OsdPeer::awaitConnection()
{
    waitFor("the connection",
            [this] { return counters->events(LinkEvent::Kind::Opened) != openedBefore; });
    connection = listener.accept();
}

void OsdPeer::hangUp(bool resets)
{
    const linger atOnce{1, 0};
    if (resets) {
        setsockopt(connection, SOL_SOCKET, SO_LINGER, &atOnce, sizeof atOnce);
    }
    ::close(connection);
    connection = -1;
}

// Half an acknowledgement before, the other half behind it.
void OsdPeer::restart()
{
    const QByteArray bytes = QByteArray("OK") + '!';
    put(bytes.left(2));
    openedBefore = counters->events(LinkEvent::Kind::Opened);
    const auto lost = [this] { return counters->events(LinkEvent::Kind::Lost); };
    const auto before = lost();
    const int way = random.below(3);
    if (way > 0) {
        hangUp(way == 1);
        waitFor("the connection to be lost", [&] { return lost() != before; });
    }
    host.perform([this] {
        CoreFactory::iOsdCore->closeClient(ip);
        CoreFactory::iOsdCore->openClient(ip, listener.port());
    });
    if (way == 0) {
        hangUp(false); // it is shut down, and lingers until then
    }
    awaitConnection();
    put(bytes.mid(2));
}

void OsdPeer::close()
{
    host.perform([this] {
        CoreFactory::iOsdCore->closeClient(ip);
        CoreFactory::iOsdCore->removeObserver(counters);
    });
    if (connection >= 0) {
        hangUp(false);
    }
}

bool OsdPeer::mayGoOn() const
{
    const quint32 oldest = ledger.firstAwaited();
    return ledger.awaited() < endpointAwaitLimit && (oldest == 0 || newest - oldest < mostApart);
}

void OsdPeer::sendWhole()
{
    put(acknowledgement());
}

QByteArray OsdPeer::acknowledgement()
{
    ledger.expect(++newest, Fate::Whole);
    return QByteArray("OK") + static_cast<char>(newest);
}

void OsdPeer::sendNever(const char* mark)
{
    ledger.expect(++newest, Fate::Never);
    put(QByteArray(mark) + '#');
}

void OsdPeer::put(const QByteArray& bytes)
{
    const auto size = static_cast<std::size_t>(bytes.size());
    if (::send(connection, bytes.constData(), size, MSG_NOSIGNAL) != bytes.size()) {
        fail(QStringLiteral("the connection is gone"));
    }
}

void OsdPeer::pass(quint32 number)
{
    model_OsdParam record = command(ip, number);
    CoreFactory::iOsdCore->sendDatatoDevice(&record);
}

QByteArray OsdPeer::expected(quint32 number) const
{
    const QByteArray data = command(ip, number).arryData;
    return QByteArray::fromHex("020305040708") + data + QByteArray::fromHex("090a");
}

QByteArray OsdPeer::incoming()
{
    QByteArray bytes(4096, '\0');
    const auto size = connection < 0 ? 0
                                     : recv(connection, bytes.data(),
                                            static_cast<std::size_t>(bytes.size()), MSG_DONTWAIT);
    return bytes.left(static_cast<int>(qMax(ssize_t{0}, size)));
}
