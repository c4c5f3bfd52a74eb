// SPDX-License-Identifier: MIT
#include "core_udp.h"

#include "blockjoin.h"
#include "callerrecord.h"
#include "commandframe.h"
#include "debugline.h"
#include "devicetypes.h"
#include "fixedlocalport.h"
#include "linktap.h"
#include "processend.h"
#include "replykinds.h"
#include "replyqueue.h"
#include "udplink.h"
#include "utility_manage.h"

#include <QElapsedTimer>
#include <QNetworkInterface>
#include <QSocketNotifier>
#include <QTimer>

#include <utility>

std::mutex core_UDP::stdCMDlock;

namespace
{

constexpr int fixedDevicePort = 3005;
constexpr int defaultDevicePort = 1000;
constexpr qint32 featureHandledByUsb = 0x400000;
constexpr qint32 featureForUdp = 0x3200;
constexpr quint8 unicastMode = 0;
constexpr quint8 broadcastMode = 1;
constexpr int readSliceMs = 5; // then the other events of the thread have their turn
constexpr int heldBackMs = 20;

// Without effect on the socket, which binds to every interface.
QHostAddress firstLocalAddress()
{
    const QList<QHostAddress> addresses = QNetworkInterface::allAddresses();
    for (const QHostAddress& address : addresses) {
        if (address.protocol() == QAbstractSocket::IPv4Protocol &&
            address.toString() != QLatin1String("127.0.0.1")) {
            return address;
        }
    }
    return QHostAddress(QStringLiteral("127.0.0.1"));
}

bool usesFixedPort(model_GlobalEnum::DeviceType type)
{
    return type == devicetypes::fixedPortA || type == devicetypes::fixedPortB;
}

// A socket for both protocols reports an IPv4 sender as ::ffff:a.b.c.d; hosts compare a.b.c.d.
QString plainText(const QHostAddress& address)
{
    bool isIpv4 = false;
    const quint32 ipv4 = address.toIPv4Address(&isIpv4);
    return (isIpv4 ? QHostAddress(ipv4) : address).toString();
}

void clearBody(model_Protocoldata& record)
{
    record.HEAD = record.ADDR = record.CMD = record.CHKSUM = 0;
    record.DAT1 = record.DAT2 = record.DAT3 = record.DAT4 = 0;
}

model_Protocoldata undecodable(const char* reason)
{
    qCDebug(debugLine) << reason;
    model_Protocoldata record;
    record.strReply = QLatin1String("");
    return record;
}

// The record of a datagram; \a refusal becomes the check that it fails as a reply.
model_Protocoldata decoded(const QByteArray& datagram, LinkEvent::Check& refusal)
{
    if (datagram.size() != commandframe::textLength) {
        refusal = LinkEvent::Check::Length;
        return undecodable("datagram.size()!=19 return");
    }
    if (datagram.at(0) != commandframe::startMark || datagram.at(1) != commandframe::replyMark) {
        refusal = LinkEvent::Check::Marks;
        return undecodable("no '<' 'F' ");
    }
    model_Protocoldata record;
    if (!commandframe::decodeText(datagram, record)) {
        refusal = LinkEvent::Check::Checksum;
        constexpr char failure[] = "CHKSUM Wrong return";
        qCDebug(debugLine) << failure;
        Utility_Manage::writeLog(QLatin1String(failure));
        clearBody(record);
    }
    return record;
}

} // namespace

core_UDP::core_UDP() : link(std::make_shared<UdpLink>(tap)), cmdsWork(replyqueue::makeWork())
{
    // Queued: a send may come from any thread, and what a slot does is not the sender's to wait
    // for.
    connect(link.get(), &UdpLink::opened, this, &core_UDP::listen, Qt::QueuedConnection);
    connect(link.get(), &UdpLink::unknownSent, this, &core_UDP::signalReInitUdp,
            Qt::QueuedConnection);
    initUdp();
    link->setDeviceIP(QStringLiteral("100.100.100.100"));
}

core_UDP::~core_UDP()
{
    disconnect(this, &core_UDP::signalReInitUdp, this, &core_UDP::reInitUdp);
    disconnect(link.get(), nullptr, this, nullptr); // while it is there: another thread may end it
    stopListening();
    link->close();
}

void core_UDP::setDeviceIP(QString ip)
{
    const std::lock_guard lock(stdCMDlock);
    link->setDeviceIP(ip);
}

void core_UDP::setPort(int port)
{
    const std::lock_guard lock(stdCMDlock);
    link->setPort(port);
}

void core_UDP::clearQueue()
{
    replyqueue::clearElsewhere(cmdsWork);
}

bool core_UDP::openSerialPort(QString, QSerialPort::BaudRate, QSerialPort::StopBits,
                              QSerialPort::Parity, QSerialPort::FlowControl, QSerialPort::DataBits)
{
    return false;
}

bool core_UDP::openUSB(unsigned short /*vendorId*/, unsigned short /*productId*/)
{
    return false;
}

void core_UDP::setDeviceType(model_GlobalEnum::DeviceType type)
{
    deviceType.store(type, std::memory_order_relaxed);
}

void core_UDP::initUdp()
{
    rebuild(Device::Kept);
}

void core_UDP::rebuild(Device device)
{
    if (device == Device::Forgotten) {
        link->setDeviceIP(QString()); // the host must set the address anew, as soon as from here on
    }
    // Before the rebuild: sends must not wait for the host's code.
    const bool fixedPort = usesFixedPort(Utility_Manage::getDeviceType());
    [[maybe_unused]] const QHostAddress local = firstLocalAddress();
    stopListening();
    forgetReceived();
    link->rebuild(fixedPort ? fixedDevicePort : fixedLocalPort(),
                  fixedPort ? fixedDevicePort : defaultDevicePort);
    listen();
    // One more connection each time: hosts count on every re-initialisation multiplying the runs.
    connect(this, &core_UDP::signalReInitUdp, this, &core_UDP::reInitUdp, Qt::QueuedConnection);
}

void core_UDP::listen()
{
    if (readable == nullptr && link->readable() >= 0) {
        readable = new QSocketNotifier(link->readable(), QSocketNotifier::Read, this);
        connect(readable, &QSocketNotifier::activated, this, &core_UDP::onReadable);
    }
    if (readable != nullptr) {
        readable->setEnabled(true);
    }
}

void core_UDP::stopListening()
{
    if (readable != nullptr) {
        readable->setEnabled(false);
        readable->deleteLater(); // its signal may have led here
        readable = nullptr;
    }
}

void core_UDP::forgetReceived()
{
    lastDatagram.clear();
    stdCMD.clear();
    blockCMD.clear();
}

void core_UDP::reInitUdp()
{
    qCDebug(debugLine) << QStringLiteral("reInitUdp()");
    rebuild(Device::Forgotten);
}

void core_UDP::reInitUdpZarn()
{
    qCDebug(debugLine) << "========================================="
                       << QStringLiteral("reInitUdp()");
    rebuild(Device::Kept);
}

void core_UDP::sendDatatoDevice(void* parameters)
{
    const auto record = callerRecord<model_Protocoldata>(parameters);
    if (!record || record->featureCode == featureHandledByUsb) {
        return;
    }
    if (record->sendMode != unicastMode && record->sendMode != broadcastMode) {
        qCDebug(debugLine) << "Send data abnormal";
        return;
    }
    const QByteArray frame = commandframe::encodeText(*record);
    if (record->sendMode == unicastMode) {
        sendUdpData(frame);
    } else {
        sendUdpDataBroadcast(frame);
    }
    qCDebug(debugLine) << textWithBytes("Send data:", frame);
}

void core_UDP::sendDatatoDeviceByFeatures(void* parameters)
{
    const auto record = callerRecord<model_Protocoldata>(parameters);
    if (record && record->featureCode == featureForUdp) {
        sendDatatoDevice(parameters);
    }
}

void core_UDP::sendDatatoDeviceForSysPlan(void* parameters)
{
    const auto record = callerRecord<model_Protocoldata>(parameters);
    if (!record || record->sendMode != unicastMode) {
        return;
    }
    const QByteArray frame = commandframe::encodeText(*record);
    if (link->sendTo(record->strKey, frame)) {
        qCDebug(debugLine) << textWithBytes("Send data:", frame);
    }
}

void core_UDP::sendUdpData(QByteArray data)
{
    if (link->sendUnicast(data) == SendOutcome::Unknown) {
        Q_EMIT signalReInitUdp();
    }
}

void core_UDP::sendUdpDataBroadcast(QByteArray data)
{
    if (link->sendBroadcast(data) == SendOutcome::Unknown) {
        Q_EMIT signalReInitUdp();
    }
}

void core_UDP::readPendingDatagrams()
{
    const processend::Call call;
    while (call && readNext()) {
    }
}

// The notifier reports again what is left. While the host keeps too much waiting the kernel's
// buffer takes what comes, and then drops it.
void core_UDP::onReadable()
{
    if (UdpLink::isBehind() || replyqueue::isFull()) {
        readable->setEnabled(false);
        QTimer::singleShot(heldBackMs, this, &core_UDP::listen);
        return;
    }
    const processend::Call call;
    if (!call) {
        readable->setEnabled(false);
        return;
    }
    QElapsedTimer slice;
    slice.start();
    while (readNext() && !slice.hasExpired(readSliceMs)) {
    }
}

// The host's code that a datagram leads to may have another socket put in place, or the next
// datagrams read.
bool core_UDP::readNext()
{
    QByteArray datagram;
    QHostAddress address;
    if (!link->read(datagram, address, lastPort)) {
        return false;
    }
    const QString sender = senderText(address);
    tap->tell(LinkEvent::Kind::Received, datagram, sender, lastPort);
    lastDatagram = datagram;
    qCDebug(debugLine) << textWithBytes("Recv data:", datagram);
    qCDebug(debugLine) << QString(QLatin1String("host ip:") + sender);
    LinkEvent::Check refusal = LinkEvent::Check::None;
    model_Protocoldata record = decoded(datagram, refusal);
    record.strKey = sender;
    record.strKey2 = sender;
    record.bKeyFlag = 0;
    record.featureCode = deviceType.load(std::memory_order_relaxed);
    route(record, datagram, refusal);
    return true;
}

QString core_UDP::senderText(const QHostAddress& sender)
{
    if (sender != lastSender || sender.scopeId() != lastSender.scopeId()) {
        lastSender = sender;
        lastSenderText = plainText(sender);
    }
    return lastSenderText;
}

void core_UDP::route(const model_Protocoldata& record, const QByteArray& datagram,
                     LinkEvent::Check refusal)
{
    using replykinds::Block;
    Block block = replykinds::kindOf(record).onUdp;
    if (block == Block::AnnouncedIfAny) {
        block = replykinds::announcedLength(record) == 0 ? Block::Immediate : Block::Announced;
    }
    if (block == Block::Immediate) {
        addToReceivedQueue(record);
    } else if (block != Block::None) {
        await(datagram);
    } else if (record.ADDR == 0 && record.CMD == 0 && record.CHKSUM == 0) {
        join(record, datagram, refusal);
    } else {
        replyqueue::post(record, *tap);
    }
}

void core_UDP::await(const QByteArray& reply)
{
    QByteArray unanswered = reply;
    {
        const std::lock_guard lock(stdCMDlock);
        stdCMD.swap(unanswered);
    }
    if (!unanswered.isEmpty()) {
        tap->refuse(LinkEvent::Check::BlockMissing, unanswered, nullptr, lastSenderText, lastPort);
    }
}

// Taken at once: the host's message handler may have the next datagrams read and a reply stored.
void core_UDP::join(const model_Protocoldata& stamps, const QByteArray& block,
                    LinkEvent::Check refusal)
{
    model_Protocoldata record;
    const QByteArray reply = std::exchange(stdCMD, QByteArray());
    if (const char* failure = joined(block, reply, record, refusal)) {
        replyqueue::raiseRetFlag();
        UdpLink::reportFailure(failure);
        return;
    }
    record.strKey = stamps.strKey;
    record.strKey2 = stamps.strKey2;
    record.bKeyFlag = stamps.bKeyFlag;
    record.featureCode = stamps.featureCode;
    replyqueue::post(std::move(record), *tap);
}

const char* core_UDP::joined(const QByteArray& received, const QByteArray& reply,
                             model_Protocoldata& record, LinkEvent::Check refusal)
{
    using Outcome = blockjoin::Outcome;
    if (received.isEmpty() || reply.isEmpty()) {
        tap->refuse(refusal, received, nullptr, lastSenderText, lastPort);
        return "arrayreceived.isEmpty()||stdCMDIn.isEmpty()";
    }
    blockjoin::Result result = blockjoin::join(getArrayData(reply), received);
    if (result.outcome != Outcome::Joined) {
        if (refusal != LinkEvent::Check::Checksum) {
            refusal = result.outcome == Outcome::ZeroLength ? LinkEvent::Check::NoBlock
                                                            : LinkEvent::Check::BlockLength;
        }
        tap->refuse(refusal, received, &result.record, lastSenderText, lastPort);
    }
    if (result.outcome == Outcome::ZeroLength) {
        qCDebug(debugLine) << "arraylen=!arrayreceived.length()";
    } else if (result.announced) {
        qCDebug(debugLine) << "dataLeng = " << result.length << result.record.arryDatablock.size();
    }
    record = std::move(result.record);
    return blockjoin::failureText(result.outcome);
}

void core_UDP::combineSTDCMDandBloackCMD(QByteArray arrayreceived, QByteArray stdCMDIn)
{
    model_Protocoldata record;
    if (const char* failure = joined(arrayreceived, stdCMDIn, record, LinkEvent::Check::Length)) {
        replyqueue::setRetFlag(true);
        qCDebug(debugLine) << failure;
        Utility_Manage::writeLog(QLatin1String(failure));
    } else {
        addToReceivedQueue(record);
    }
}

void core_UDP::addToReceivedQueue(model_Protocoldata record)
{
    replyqueue::append(std::move(record), *tap);
}

void core_UDP::setRetFlagStatus(bool on)
{
    replyqueue::setRetFlag(on);
}

QByteArray core_UDP::produceCmds(model_Protocoldata record)
{
    return commandframe::encodeText(record);
}

QByteArray core_UDP::changeData(QByteArray bytes)
{
    return commandframe::toText(bytes);
}

model_Protocoldata core_UDP::getArrayData(QByteArray datagram)
{
    LinkEvent::Check refusal = LinkEvent::Check::None;
    return decoded(datagram, refusal);
}

qint16 core_UDP::combineTwoByte(unsigned char first, unsigned char second)
{
    return static_cast<qint16>(second * 256 + first);
}

QString core_UDP::autoRec(QString text)
{
    return text.rightJustified(2, QLatin1Char('0'));
}
