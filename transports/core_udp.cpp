// SPDX-License-Identifier: MIT
#include "core_udp.h"

#include "blockjoin.h"
#include "callerrecord.h"
#include "commandframe.h"
#include "debugline.h"
#include "devicetypes.h"
#include "fixedlocalport.h"
#include "replykinds.h"
#include "replyqueue.h"
#include "udplink.h"
#include "utility_manage.h"

#include <QNetworkInterface>
#include <QUdpSocket>

#include <cerrno>
#include <cstring>

#include <netinet/in.h>
#include <sys/socket.h>

std::mutex core_UDP::stdCMDlock;

namespace
{

constexpr int fixedDevicePort = 3005;
constexpr int defaultDevicePort = 1000;
constexpr qint32 featureHandledByUsb = 0x400000;
constexpr qint32 featureForUdp = 0x3200;
constexpr quint8 unicastMode = 0;
constexpr quint8 broadcastMode = 1;
constexpr std::size_t largestDatagram = 65536;
constexpr int receiveBufferBytes = 4 * 1024 * 1024; // 2,000 replies with the kernel's overhead

// Looked up as hosts have always seen it done; the socket binds to every interface all the same.
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

void askForReceiveBuffer(QUdpSocket& socket)
{
    const auto descriptor = static_cast<int>(socket.socketDescriptor());
    if (setsockopt(descriptor, SOL_SOCKET, SO_RCVBUFFORCE, &receiveBufferBytes,
                   sizeof receiveBufferBytes) != 0) { // needs a privilege
        socket.setSocketOption(QAbstractSocket::ReceiveBufferSizeSocketOption, receiveBufferBytes);
    }
}

// A socket for both protocols reports an IPv4 sender as ::ffff:a.b.c.d; hosts compare a.b.c.d.
QString plainText(const QHostAddress& address)
{
    bool isIpv4 = false;
    const quint32 ipv4 = address.toIPv4Address(&isIpv4);
    return (isIpv4 ? QHostAddress(ipv4) : address).toString();
}

unsigned scopeOf(const sockaddr_storage& address)
{
    sockaddr_in6 in6{};
    std::memcpy(&in6, &address, sizeof in6);
    return in6.sin6_family == AF_INET6 ? in6.sin6_scope_id : 0;
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

} // namespace

core_UDP::core_UDP()
    : link(std::make_shared<UdpLink>(this)), cmdsWork(std::make_shared<biz_CMDSWork>()),
      readBuffer(largestDatagram)
{
    initUdp();
    link->setDeviceIP(QStringLiteral("100.100.100.100"));
}

core_UDP::~core_UDP()
{
    disconnect(this, &core_UDP::signalReInitUdp, this, &core_UDP::reInitUdp);
    link->abandon();
    closeSocket();
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

void core_UDP::closeSerialPort() {}

bool core_UDP::openUSB(unsigned short /*vendorId*/, unsigned short /*productId*/)
{
    return false;
}

void core_UDP::closeUSB() {}

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
    // Before the detach: sends must not wait for the host's code.
    const bool fixedPort = usesFixedPort(Utility_Manage::getDeviceType());
    [[maybe_unused]] const QHostAddress local = firstLocalAddress();
    if (udpSocket != nullptr) {
        link->detach();
        closeSocket();
    }
    if (device == Device::Forgotten) {
        link->setDeviceIP(QString()); // the host must set the address anew
    }
    udpSocket = new QUdpSocket;
    if (fixedPort) {
        link->setPort(fixedDevicePort);
        udpSocket->bind(fixedDevicePort);
    } else {
        link->setPort(defaultDevicePort);
        udpSocket->bind(fixedLocalPort());
    }
    askForReceiveBuffer(*udpSocket);
    link->attach(std::make_shared<UdpEndpoint>(udpSocket->socketDescriptor()));
    connect(udpSocket, &QUdpSocket::readyRead, this, &core_UDP::readPendingDatagrams);
    // One more connection each time: hosts count on every re-initialisation multiplying the runs.
    connect(this, &core_UDP::signalReInitUdp, this, &core_UDP::reInitUdp, Qt::QueuedConnection);
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

void core_UDP::closeSocket()
{
    udpSocket->disconnect(this);
    udpSocket->close(); // what is pending goes with it
    lastDatagram.clear();
    stdCMD.clear();
    blockCMD.clear();
    if (readsUnderWay > 0) { // called by host code that a datagram led to: Qt still uses the socket
        udpSocket->setParent(this); // goes with the transport at the latest
        closedSockets.push_back(udpSocket);
    } else {
        delete udpSocket;
    }
    udpSocket = nullptr;
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
    if (!record || record->sendMode != unicastMode || record->strKey != link->deviceIP()) {
        return;
    }
    const QByteArray frame = commandframe::encodeText(*record);
    link->sendLater(frame);
    qCDebug(debugLine) << textWithBytes("Send data:", frame);
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
    ++readsUnderWay;
    while (readNext()) {
    }
    if (--readsUnderWay == 0) {
        for (QUdpSocket* closed : closedSockets) {
            closed->deleteLater(); // its readyRead may have led here
        }
        closedSockets.clear();
    }
}

// One system call a datagram, then a last read through the socket, which finds nothing more and
// makes it report the next datagram. The host's code that a datagram leads to may have put another
// socket in place.
bool core_UDP::readNext()
{
    if (udpSocket->state() != QAbstractSocket::BoundState) {
        return false;
    }
    sockaddr_storage from{};
    socklen_t length = sizeof from;
    const ssize_t size =
        recvfrom(static_cast<int>(udpSocket->socketDescriptor()), readBuffer.data(),
                 readBuffer.size(), MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&from), &length);
    if (size >= 0) {
        readOne(static_cast<int>(size), senderText(from));
        return true;
    }
    if (errno == EINTR) {
        return true;
    }
    QHostAddress sender;
    const qint64 last =
        udpSocket->readDatagram(readBuffer.data(), static_cast<qint64>(readBuffer.size()), &sender);
    if (last < 0) {
        return false;
    }
    readOne(static_cast<int>(last), plainText(sender));
    return true;
}

QString core_UDP::senderText(const sockaddr_storage& sender)
{
    QHostAddress address(reinterpret_cast<const sockaddr*>(&sender));
    if (const unsigned scope = scopeOf(sender)) {
        address.setScopeId(QNetworkInterface::interfaceNameFromIndex(static_cast<int>(scope)));
    }
    if (address != lastSender || address.scopeId() != lastSender.scopeId()) {
        lastSender = address;
        lastSenderText = plainText(address);
    }
    return lastSenderText;
}

void core_UDP::readOne(int size, const QString& sender)
{
    // The host's code below may have the socket rebuilt, or the next datagrams read.
    const QByteArray datagram(readBuffer.data(), size);
    lastDatagram = datagram;
    qCDebug(debugLine) << textWithBytes("Recv data:", datagram);
    qCDebug(debugLine) << QString(QLatin1String("host ip:") + sender);
    model_Protocoldata record = getArrayData(datagram);
    record.strKey = sender;
    record.strKey2 = sender;
    record.bKeyFlag = 0;
    record.featureCode = deviceType.load(std::memory_order_relaxed);
    route(record, datagram);
}

void core_UDP::route(const model_Protocoldata& record, const QByteArray& datagram)
{
    using replykinds::Block;
    Block block = replykinds::kindOf(record).onUdp;
    if (block == Block::AnnouncedIfAny) {
        block = replykinds::announcedLength(record) == 0 ? Block::Immediate : Block::Announced;
    }
    if (block == Block::Immediate) {
        addToReceivedQueue(record);
    } else if (block != Block::None) {
        const std::lock_guard lock(stdCMDlock);
        stdCMD = datagram;
    } else if (record.ADDR == 0 && record.CMD == 0 && record.CHKSUM == 0) {
        join(record, datagram);
    } else {
        replyqueue::post(record);
    }
}

// The join itself is cheap and waits for nothing; what may wait for the host is posted, before the
// wait for the class-wide lock.
void core_UDP::join(const model_Protocoldata& stamps, const QByteArray& block)
{
    model_Protocoldata record;
    const QByteArray reply = stdCMD;
    if (const char* failure = joined(block, reply, record)) {
        replyqueue::postFailure(failure);
    } else {
        record.strKey = stamps.strKey;
        record.strKey2 = stamps.strKey2;
        record.bKeyFlag = stamps.bKeyFlag;
        record.featureCode = stamps.featureCode;
        replyqueue::post(std::move(record));
    }
    const std::lock_guard lock(stdCMDlock);
    if (stdCMD.isSharedWith(reply)) { // else the host's code had another one read and stored
        stdCMD.clear();
    }
}

const char* core_UDP::joined(const QByteArray& received, const QByteArray& reply,
                             model_Protocoldata& record)
{
    if (received.isEmpty() || reply.isEmpty()) {
        return "arrayreceived.isEmpty()||stdCMDIn.isEmpty()";
    }
    blockjoin::Result result = blockjoin::join(getArrayData(reply), received);
    if (result.outcome == blockjoin::Outcome::ZeroLength) {
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
    if (const char* failure = joined(arrayreceived, stdCMDIn, record)) {
        replyqueue::reportFailure(failure);
    } else {
        addToReceivedQueue(record);
    }
}

void core_UDP::addToReceivedQueue(model_Protocoldata record)
{
    replyqueue::append(std::move(record));
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
    if (datagram.size() != commandframe::textLength) {
        return undecodable("datagram.size()!=19 return");
    }
    if (datagram.at(0) != commandframe::startMark || datagram.at(1) != commandframe::replyMark) {
        return undecodable("no '<' 'F' ");
    }
    model_Protocoldata record;
    if (!commandframe::decodeText(datagram, record)) {
        constexpr char failure[] = "CHKSUM Wrong return";
        qCDebug(debugLine) << failure;
        Utility_Manage::writeLog(QLatin1String(failure));
        clearBody(record);
    }
    return record;
}

qint16 core_UDP::combineTwoByte(unsigned char first, unsigned char second)
{
    return static_cast<qint16>(second * 256 + first);
}

QString core_UDP::autoRec(QString text)
{
    return text.rightJustified(2, QLatin1Char('0'));
}

void core_UDP::senToUipro(void* /*parameters*/) {}

void core_UDP::processInfoDisplayonUI(void* /*parameters*/) {}
