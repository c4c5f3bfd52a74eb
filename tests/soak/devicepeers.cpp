// SPDX-License-Identifier: MIT
#include "devicepeers.h"

#include "core_udp.h"
#include "corefactory.h"
#include "literalframe.h"
#include "recordequality.h"
#include "serialline.h"
#include "udppeer.h"

#include <sched.h>

using numberedreplies::Link;
using numberedreplies::Reply;
using std::chrono::milliseconds;

namespace
{

constexpr quint64 mostUnderWay = 2000; // bytes; the kernel's smallest buffer for the link has room
constexpr int deviceAwaitLimit = 48;
constexpr milliseconds blockPatience{600}; // that the library promises a block
constexpr quint16 vendor = 0x04b4;
constexpr quint16 product = 0x1008;

ConnType typeOf(Link link)
{
    constexpr std::array<ConnType, numberedreplies::links> types{ConnUdp, ConnSerial,
                                                                 ConnVelaSerial, ConnUsb};
    return types[static_cast<std::size_t>(link)];
}

// Datagrams of one sender on several processors may overtake each other inside the kernel.
void stayOnOneProcessor()
{
    cpu_set_t allowed;
    CPU_ZERO(&allowed);
    CPU_SET(static_cast<unsigned>(sched_getcpu()), &allowed);
    sched_setaffinity(0, sizeof allowed, &allowed);
}

} // namespace

DevicePeer::DevicePeer(Link itsLink, const QString& itsName, SoakHost& itsHost, quint64 seed)
    : SoakPeer(itsName, itsHost, seed), kind(itsLink)
{
}

void DevicePeer::take(const model_Protocoldata& record)
{
    const quint32 number = numberedreplies::numberOf(kind, record);
    const Reply reply = make(number);
    model_Protocoldata wanted = reply.record;
    const bool isBare =
        kind == Link::Vela && record.arryDatablock.isEmpty() && !wanted.arryDatablock.isEmpty();
    if (isBare) {
        wanted.arryDatablock.clear();
    } else {
        stamp(reply, number, wanted);
    }
    QString problem;
    if (!sameRecord(record, wanted)) {
        problem = QStringLiteral("is not what was sent: CMD %1, DAT1 %2, block %3")
                      .arg(record.CMD)
                      .arg(record.DAT1)
                      .arg(QString::fromLatin1(record.arryDatablock.toHex()));
    } else {
        problem = ledger.arrived(number, isBare);
    }
    quint32& last = lastOfRoute[static_cast<std::size_t>(routeOf(reply))];
    if (problem.isEmpty() && number < last) {
        problem = QStringLiteral("was overtaken by %1").arg(last);
    }
    last = number;
    if (!problem.isEmpty()) {
        host.fail(QStringLiteral("%1: reply %2 %3").arg(name).arg(number).arg(problem));
    }
}

void DevicePeer::pass(quint32 number)
{
    model_Protocoldata record = numberedreplies::command(number);
    link->sendDatatoDevice(&record);
}

QByteArray DevicePeer::expected(quint32 number) const
{
    const model_Protocoldata record = numberedreplies::command(number);
    return kind == Link::Vela ? literalframe::produceBinary(record)
                              : literalframe::produceCmds(record);
}

quint64 DevicePeer::receivedBytes() const
{
    return counters->bytes(LinkEvent::Kind::Received) - receivedBefore;
}

bool DevicePeer::mayGoOn() const
{
    return ledger.awaited() < deviceAwaitLimit && sentBytes - receivedBytes() < mostUnderWay;
}

quint32 DevicePeer::nextNumber()
{
    newest = numberedreplies::next(newest);
    return newest;
}

quint32 DevicePeer::nextNumber(bool withBlock)
{
    while (make(nextNumber()).block.isEmpty() == withBlock) {
    }
    return newest;
}

// One digit or one mark is another one: never the same sum. Nobody looks at a datagram's end mark.
QByteArray DevicePeer::damaged(QByteArray head)
{
    const int unchecked = kind == Link::Udp ? 1 : 0;
    const int at = random.below(static_cast<int>(head.size()) - unchecked);
    const char before = head.at(at);
    if (kind == Link::Vela || at < 2 || at == head.size() - 1) {
        head[at] = before == '#' ? '$' : '#';
    } else {
        head[at] = before == '7' ? 'a' : '7';
    }
    return head;
}

QByteArray DevicePeer::noise()
{
    return numberedreplies::noise(1 + random.below(60), static_cast<quint32>(random.below(1000)));
}

// UDP

UdpPeers::UdpPeers(SoakHost& itsHost, quint64 seed)
    : DevicePeer(Link::Udp, QStringLiteral("udp"), itsHost, seed)
{
    actions = {
        {"lost", 20, [this] { sendNever([](quint32, const Reply&) {}); }},
        {"damaged", 30,
         [this] {
             sendNever([this](quint32 number, const Reply& reply) {
                 send(number, damaged(reply.head));
                 if (!reply.block.isEmpty()) {
                     send(number, reply.block);
                 }
             });
         }},
        {"cut short", 10,
         [this] {
             sendNever([this](quint32 number, const Reply& reply) {
                 send(number, reply.head.left(random.below(19)));
             });
         }},
        {"too long", 10,
         [this] {
             sendNever([this](quint32 number, const Reply& reply) {
                 send(number, reply.head + noise());
             });
         }},
        {"block lost", 20,
         [this] {
             const quint32 number = nextNumber(true);
             ledger.expect(number, Fate::Never);
             send(number, make(number).head);
             sendWhole(nextNumber(true)); // takes its place
         }},
        {"block cut short", 10,
         [this] {
             quint32 number = 0;
             do {
                 number = nextNumber(true);
             } while (make(number).block.size() == 145 || make(number).block.size() == 129);
             ledger.expect(number, Fate::Never);
             send(number, make(number).head);
             send(number, make(number).block.chopped(1 + random.below(5)));
         }},
        {"noise", 30,
         [this] {
             send(static_cast<quint32>(random.below(100)), noise());
             sendWhole();
         }},
        {"late block", 20,
         [this] {
             std::vector<quint32> others(static_cast<std::size_t>(1 + random.below(4)));
             for (quint32& other : others) {
                 other = nextNumber(false);
             }
             const quint32 number = nextNumber(true);
             send(number, make(number).head);
             for (const quint32 other : others) {
                 sendWhole(other);
             }
             pause(someTime());
             ledger.expect(number, Fate::Whole);
             send(number, make(number).block);
         }},
        {"delayed", 20,
         [this] {
             pause(someTime());
             sendWhole();
         }},
    };
}

void UdpPeers::send(quint32 number, const QByteArray& datagram)
{
    QUdpSocket& from = *sockets[number % senders];
    waitFor("the system to take a datagram", [&] {
        return from.writeDatagram(datagram, QHostAddress(QHostAddress::LocalHost),
                                  UdpPeer::linkPort) == datagram.size();
    });
    sentBytes += static_cast<quint64>(datagram.size());
}

void UdpPeers::sendWhole()
{
    sendWhole(nextNumber());
}

void UdpPeers::sendWhole(quint32 number)
{
    const Reply reply = make(number);
    ledger.expect(number, Fate::Whole);
    send(number, reply.head);
    if (!reply.block.isEmpty()) {
        send(number, reply.block);
    }
}

void UdpPeers::sendNever(const std::function<void(quint32, const Reply&)>& sending)
{
    const quint32 number = nextNumber();
    ledger.expect(number, Fate::Never);
    sending(number, make(number));
}

void UdpPeers::open()
{
    stayOnOneProcessor();
    for (std::size_t i = 0; i < senders; ++i) {
        sockets.push_back(std::make_unique<QUdpSocket>());
        if (!sockets.back()->bind(QHostAddress(senderOf(static_cast<quint32>(i))), 0)) {
            fail(QStringLiteral("no socket for a device"));
        }
    }
    host.perform([this] { makeLink(); });
}

QString UdpPeers::senderOf(quint32 number)
{
    return QStringLiteral("127.0.0.%1").arg(2 + number % senders);
}

void UdpPeers::makeLink()
{
    link.reset(CoreFactory::creatCoreObjInstance(ConnUdp));
    link->addObserver(counters);
    aim();
}

void UdpPeers::aim()
{
    link->setDeviceIP(senderOf(0));
    link->setPort(sockets.front()->localPort());
}

// The number of re-initialisations doubles with each, so that a link gets a few of them only.
void UdpPeers::restart()
{
    const quint32 number = nextNumber(true);
    ledger.expect(number, Fate::Never);
    send(number, make(number).head);
    waitFor("the first half of a reply", [this] { return sentBytes == receivedBytes(); });
    const auto rebuilds = [this] { return counters->events(LinkEvent::Kind::Reinitialised); };
    const auto before = rebuilds();
    switch (restartsOfLink++) {
    case 0:
        host.perform([this] { Q_EMIT static_cast<core_UDP&>(*link).signalReInitUdp(); });
        waitFor("the socket", [&] { return rebuilds() > before; });
        host.perform([this] { aim(); });
        break;
    case 1:
        host.perform([this] {
            static_cast<core_UDP&>(*link).reInitUdpZarn();
            aim();
        });
        break;
    default:
        host.perform([this] {
            link.reset();
            makeLink();
        });
        restartsOfLink = 0;
    }
    send(number, make(number).block);
}

void UdpPeers::close()
{
    host.perform([this] { link.reset(); });
    sockets.clear();
}

QByteArray UdpPeers::incoming()
{
    QByteArray bytes;
    for (QUdpSocket& socket = *sockets.front(); socket.hasPendingDatagrams();) {
        QByteArray datagram(static_cast<int>(socket.pendingDatagramSize()), '\0');
        socket.readDatagram(datagram.data(), datagram.size());
        bytes += datagram;
    }
    return bytes;
}

void UdpPeers::stamp(const Reply&, quint32 number, model_Protocoldata& record) const
{
    record.strKey = record.strKey2 = senderOf(number);
}

// Streams

StreamPeer::StreamPeer(Link itsLink, const QString& itsName, SoakHost& itsHost, quint64 seed)
    : DevicePeer(itsLink, itsName, itsHost, seed)
{
    actions = {
        {"lost", 20, [this] { ledger.expect(nextNumber(), Fate::Never); }},
        {"damaged", 30,
         [this] {
             const quint32 number = nextNumber();
             ledger.expect(number, Fate::Never);
             put(damaged(make(number).head) + make(number).block, true);
         }},
        {"cut short", isBinary() ? 0 : 10, // what follows a binary head may complete it
         [this] {
             const quint32 number = nextNumber();
             ledger.expect(number, Fate::Never);
             put(make(number).head.left(1 + random.below(18)), true);
         }},
        {"block damaged", 20,
         [this] {
             const quint32 number = nextNumber(true);
             QByteArray block = make(number).block;
             const int at = random.below(static_cast<int>(block.size()));
             block[at] = block.at(at) == '.' ? ',' : '.';
             const auto before = refusedBlocks();
             ledger.expect(number, isBinary() ? Fate::Bare : Fate::Never);
             put(make(number).head + block, true);
             waitFor("a block to be refused", [&] { return refusedBlocks() != before; });
         }},
        {"noise", 30,
         [this] {
             put(noise(), true);
             sendWhole();
         }},
        {"split", 30, [this] { sendSplit(); }},
        {"block withheld", 2, [this] { withholdBlock(); }},
        {"delayed", 20,
         [this] {
             pause(someTime());
             sendWhole();
         }},
    };
}

int StreamPeer::routeOf(const Reply& reply) const
{
    return isBinary() || reply.isImmediate || !reply.block.isEmpty() ? 0 : 1;
}

void StreamPeer::sendWhole()
{
    sendWhole(nextNumber());
}

void StreamPeer::sendWhole(quint32 number)
{
    const Reply reply = make(number);
    const QByteArray bytes = reply.head + reply.block;
    if (bytes.size() <= longestPiece() || reply.block.isEmpty()) {
        ledger.expect(number, Fate::Whole);
        put(bytes, true);
    } else {
        sendInTime(number, [this](const QByteArray& whole) { put(whole, true); });
    }
}

// The library's parser waits some time for a block that comes in pieces. Where the machine gives
// its peer too little of that, the reply is given up; the time that took is what is checked then.
void StreamPeer::sendInTime(quint32 number, const std::function<void(const QByteArray&)>& sending)
{
    const Reply reply = make(number);
    const auto before = givenUp();
    const auto start = Clock::now();
    ledger.expect(number, isBinary() && !reply.block.isEmpty() ? Fate::Any : Fate::Whole);
    sending(reply.head + reply.block);
    if (reply.block.isEmpty()) {
        return;
    }
    waitFor("a block in pieces",
            [&] { return ledger.hasArrived(number, false) || givenUp() != before; });
    if (givenUp() == before) {
        return;
    }
    if (Clock::now() - start < blockPatience) {
        fail(QStringLiteral("reply %1 was given up too early").arg(number));
    }
    if (isBinary()) {
        waitFor("a reply without its block", [&] { return ledger.hasArrived(number, true); });
    } else {
        ledger.giveUp(number);
    }
}

// Not between the marks of a binary reply, which a device sends whole.
void StreamPeer::sendSplit()
{
    sendInTime(nextNumber(), [this](const QByteArray& bytes) {
        for (int at = 0; at < bytes.size();) {
            const int length = qMax(pieceLength(), at == 0 && isBinary() ? 2 : 1);
            put(bytes.mid(at, length), at + length >= bytes.size());
            at += length;
            pause(milliseconds(random.below(3)));
        }
    });
}

// Until the library has given it up; then it comes as noise, or not at all.
void StreamPeer::withholdBlock()
{
    const quint32 number = nextNumber(true);
    const Reply reply = make(number);
    const int part = random.below(qMin(static_cast<int>(reply.block.size()), 45));
    const auto before = givenUp();
    const auto start = Clock::now();
    ledger.expect(number, isBinary() ? Fate::Bare : Fate::Never);
    put(reply.head + reply.block.left(part), false);
    waitFor("a block to be given up", [&] { return givenUp() != before; });
    if (Clock::now() - start < blockPatience) {
        fail(QStringLiteral("reply %1 was given up too early").arg(number));
    }
    if (random.chance(0.5)) {
        put(reply.block.mid(part), true);
    }
}

void StreamPeer::restartInTheMiddle(const std::function<void()>& restarting)
{
    const quint32 number = nextNumber(false);
    const QByteArray head = make(number).head;
    const int half = 2 + random.below(static_cast<int>(head.size()) - 3);
    ledger.expect(number, Fate::Never);
    put(head.left(half), false);
    restarting();
    sentBytes = 0;
    receivedBefore = counters->bytes(LinkEvent::Kind::Received);
    put(head.mid(half), true);
}

// Serial lines

SerialLinePeer::SerialLinePeer(Link itsLink, const QString& itsName, SoakHost& itsHost,
                               quint64 seed)
    : StreamPeer(itsLink, itsName, itsHost, seed)
{
}

void SerialLinePeer::open()
{
    line.emplace();
    host.perform([this] { openLink(); });
}

void SerialLinePeer::openLink()
{
    if (!link) {
        link.reset(CoreFactory::creatCoreObjInstance(typeOf(kind)));
        link->addObserver(counters);
        auto& serial = static_cast<SerialLine&>(*link);
        QObject::connect(&serial.port(), SIGNAL(errorOccurred(QSerialPort::SerialPortError)),
                         link.get(), SLOT(handleError(QSerialPort::SerialPortError)));
    }
    origin = line->portName().section(QLatin1Char('/'), 2);
    if (!link->openSerialPort(line->portName(), QSerialPort::Baud115200, QSerialPort::OneStop,
                              QSerialPort::NoParity, QSerialPort::NoFlowControl,
                              QSerialPort::Data8)) {
        host.fail(name + QStringLiteral(": cannot be opened"));
    }
}

void SerialLinePeer::restart()
{
    restartInTheMiddle([this] {
        // What the system still has of a line would be there when it is opened again.
        waitFor("the first half of a reply", [this] { return sentBytes == receivedBytes(); });
        const auto lost = [this] { return counters->events(LinkEvent::Kind::Lost); };
        const auto before = lost();
        switch (random.below(3)) {
        case 0:
            line->hangUp();
            waitFor("the line to be lost", [&] { return lost() != before; });
            line.emplace();
            break;
        case 1:
            host.perform([this] { link->closeSerialPort(); });
            break;
        default:
            host.perform([this] { link.reset(); });
        }
        host.perform([this] { openLink(); });
    });
}

void SerialLinePeer::close()
{
    host.perform([this] { link.reset(); });
    line.reset();
}

void SerialLinePeer::put(const QByteArray& bytes, bool /*endsReply*/)
{
    waitFor("the link to read its line",
            [this] { return sentBytes - receivedBytes() < mostUnderWay; });
    if (line->offer(bytes) != bytes.size()) {
        fail(QStringLiteral("the line takes nothing"));
    }
    sentBytes += static_cast<quint64>(bytes.size());
}

QByteArray SerialLinePeer::incoming()
{
    return line->taken();
}

void SerialLinePeer::stamp(const Reply&, quint32, model_Protocoldata& record) const
{
    record.strKey2 = origin;
    record.bKeyFlag = 1;
}

// USB

UsbPeer::UsbPeer(HidTestbed& itsTestbed, SoakHost& itsHost, quint64 seed)
    : StreamPeer(Link::Usb, QStringLiteral("usb"), itsHost, seed), testbed(itsTestbed)
{
    gap = milliseconds(100); // the link reads a report in this time
    restartEvery = 40;
}

void UsbPeer::plugIn()
{
    hid =
        std::make_unique<EmulatedHid>(testbed, vendor, product, [this](const std::string& report) {
            const std::lock_guard guard(lock);
            arrived += report;
        });
}

void UsbPeer::open()
{
    plugIn();
    host.perform([this] { openLink(); });
}

void UsbPeer::openLink()
{
    if (!link) {
        link.reset(CoreFactory::creatCoreObjInstance(ConnUsb));
        link->addObserver(counters);
    }
    if (!link->openUSB(vendor, product)) {
        host.fail(name + QStringLiteral(": cannot be opened"));
    }
}

void UsbPeer::restart()
{
    restartInTheMiddle([this] {
        const auto lost = [this] { return counters->events(LinkEvent::Kind::Lost); };
        const auto before = lost();
        switch (random.below(3)) {
        case 0:
            hid->unplug();
            waitFor("the device to be lost", [&] { return lost() != before; });
            host.perform([this] { link->closeUSB(); });
            plugIn();
            break;
        case 1:
            host.perform([this] { link->closeUSB(); });
            break;
        default:
            host.perform([this] { link.reset(); });
        }
        host.perform([this] { openLink(); });
    });
}

void UsbPeer::close()
{
    host.perform([this] { link.reset(); });
    hid.reset();
}

void UsbPeer::put(const QByteArray& bytes, bool endsReply)
{
    for (int at = 0; at < bytes.size(); at += EmulatedHid::reportData) {
        waitFor("the link to read its reports", [this] { return hid->unread() < 16; });
        const QByteArray report = bytes.mid(at, EmulatedHid::reportData);
        const bool isTaken = endsReply ? hid->sendPadded(report) : hid->send(report);
        if (!isTaken) {
            fail(QStringLiteral("the device's reports are lost"));
        }
    }
}

QByteArray UsbPeer::incoming()
{
    if (hid) {
        hid->forgetWritten();
    }
    const std::lock_guard guard(lock);
    return QByteArray::fromStdString(std::exchange(arrived, {}));
}

QByteArray UsbPeer::expected(quint32 number) const
{
    return '\0' + StreamPeer::expected(number).leftJustified(EmulatedHid::reportData, '\0');
}

void UsbPeer::stamp(const Reply& reply, quint32, model_Protocoldata& record) const
{
    record.strKey2 = reply.block.isEmpty() ? QStringLiteral("USB") : QString();
    record.bKeyFlag = reply.isImmediate ? 21 : 2;
}
