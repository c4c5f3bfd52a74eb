// SPDX-License-Identifier: MIT
#include "udpcomparison.h"

#include "core_udp.h"
#include "eventually.h"
#include "hostqueue.h"
#include "linkobserver.h"
#include "literaludp.h"
#include "messagecapture.h"
#include "replyoutcome.h"
#include "utility_manage.h"

#include <QFile>
#include <QTemporaryDir>
#include <QUdpSocket>

namespace
{

constexpr auto deviceType = static_cast<model_GlobalEnum::DeviceType>(0x4711);
constexpr quint16 linkPort = 5104; // its fixed local port
constexpr qint64 logBytes = qint64{64} * 1024 * 1024;

class Counter : public LinkObserver
{
public:
    void onEvent(const LinkEvent& event) override
    {
        count += event.kind == LinkEvent::Kind::Received ? 1 : 0;
    }

    int count = 0; // of datagrams, which come on the owner's thread
};

} // namespace

struct UdpComparison::Parts {
    Parts()
    {
        transport.setDeviceType(deviceType);
        observer = std::make_shared<Counter>();
        transport.addObserver(observer);
    }

    bool send(const QByteArray& datagram)
    {
        const int before = observer->count;
        peer.writeDatagram(datagram, QHostAddress(QHostAddress::LocalHost), linkPort);
        return eventually([this, before] {
            transport.readPendingDatagrams();
            return observer->count > before;
        });
    }

    core_UDP transport;
    std::shared_ptr<Counter> observer;
    QUdpSocket peer;
    QTemporaryDir logs;
};

UdpComparison::UdpComparison() : parts(std::make_unique<Parts>()) {}
UdpComparison::~UdpComparison() = default;

QString UdpComparison::difference(const QVector<QByteArray>& datagrams)
{
    ReplyOutcome expected;
    LiteralUdp literal;
    literal.deviceType = deviceType;
    const QVector<QByteArray> all = datagrams + QVector<QByteArray>(2, "x");
    {
        const MessageCapture capture;
        for (const QByteArray& datagram : all) {
            literal.bRetFlag = false;
            literal.receive(datagram, QStringLiteral("127.0.0.1"));
            expected.flags += literal.bRetFlag ? '1' : '0';
        }
        expected.lines = capture.lines();
    }
    expected.records = literal.receivequeueHexCmd;
    expected.log = literal.log;

    const QString log = parts->logs.filePath(QStringLiteral("udp.log"));
    QFile::remove(log);
    Utility_Manage::setLogFile(log, logBytes);
    hostqueue::clear();
    ReplyOutcome was;
    const MessageCapture capture;
    for (const QByteArray& datagram : all) {
        hostqueue::setFlag(false);
        if (!parts->send(datagram)) {
            return QStringLiteral("a datagram was not received");
        }
        was.flags += hostqueue::flag() ? '1' : '0';
    }
    // Failures are reported on another thread, in order; the last datagram certainly is one.
    const bool isReported = eventually([&] {
        was.lines = capture.lines();
        was.log = hostqueue::logLines();
        return was.lines.size() >= expected.lines.size() && was.log.size() >= expected.log.size();
    });
    const auto records = hostqueue::records();
    was.records.assign(records.begin(), records.end());
    for (QStringList* const lines : {&was.lines, &was.log, &expected.lines, &expected.log}) {
        lines->sort();
    }
    return isReported ? was.difference(expected)
                      : QStringLiteral("lines are missing: ") + was.difference(expected);
}
