// SPDX-License-Identifier: MIT
#include "udplink.h"

#include "handoverthread.h"
#include "replyqueue.h"
#include "sendreport.h"

#include <array>
#include <functional>

namespace
{

constexpr std::size_t reportLimit = 65536;

// The result of an operation that is still in progress, as the device's first driver returned it.
constexpr qint64 inProgress = -115;

// In the order of SendOutcome.
using SentLines = std::array<const char*, 4>;

// A plain failure of a unicast has the broadcast's wording: log readers rely on it.
constexpr SentLines unicastLines{sentLine, sendFailedLine, "Send Broadcast failed", "Send unknown"};
constexpr SentLines broadcastLines{"Send Broadcast successful", "Send Broadcast failed",
                                   "Send Broadcast failed", "Send Broadcast unknown"};

void report(SendOutcome outcome, const SentLines& lines, const QByteArray& frame)
{
    reportSend(outcome == SendOutcome::Successful, lines.at(static_cast<std::size_t>(outcome)),
               textWithBytes("", frame));
}

using Report = std::function<void()>;

void reportAll(std::deque<Report>& batch)
{
    for (const Report& next : batch) {
        if (processend::over()) {
            return;
        }
        next();
    }
}

// Never destroyed: its thread may be at work while the process ends.
HandOverThread<Report>& reports()
{
    static auto* const instance = new HandOverThread<Report>(reportAll);
    return *instance;
}

bool hasThreads()
{
    return replyqueue::start() && reports().start();
}

} // namespace

UdpLink::UdpLink(std::shared_ptr<const LinkTap> watched) : tap(std::move(watched)) {}

bool UdpLink::open()
{
    return hasThreads() && udpSocket.open(*localPort);
}

void UdpLink::rebuild(quint16 newLocalPort, int devicePort)
{
    {
        const std::lock_guard guard(lock);
        udpSocket.close(); // what is pending goes with it
        device.port = static_cast<quint16>(devicePort);
        localPort = newLocalPort;
        (void)open();
    }
    tap->tell(LinkEvent::Kind::Reinitialised);
    if (!hasThreads()) {
        Utility_Manage::writeLog(QStringLiteral("UDP: the system refuses a thread, link closed"));
    }
}

void UdpLink::close()
{
    {
        const std::lock_guard guard(lock);
        localPort.reset();
        udpSocket.close();
    }
    tap->tell(LinkEvent::Kind::Closed);
}

void UdpLink::setDeviceIP(const QString& ip)
{
    const QHostAddress parsed(ip);
    const std::lock_guard guard(lock);
    device.text = ip;
    device.address = parsed;
}

void UdpLink::setPort(int port)
{
    const std::lock_guard guard(lock);
    device.port = static_cast<quint16>(port);
}

UdpLink::Destination UdpLink::destination() const
{
    const std::lock_guard guard(lock);
    return device;
}

qint64 UdpLink::write(const char* data, qint64 size, const Destination& to)
{
    bool isOpened = false;
    qint64 written = -1;
    {
        const std::lock_guard guard(lock);
        isOpened = !udpSocket.isOpen() && localPort && open();
        written = udpSocket.write(data, size, to.address, to.port);
    }
    if (isOpened) {
        tap->tell(LinkEvent::Kind::Opened);
        Q_EMIT opened();
    }
    tap->tellOf([&] {
        const auto kind = written == size ? LinkEvent::Kind::Sent : LinkEvent::Kind::SendFailed;
        return LinkEvent{
            kind, {}, QByteArray(data, static_cast<int>(size)), to.address.toString(), to.port};
    });
    return written;
}

SendOutcome UdpLink::send(const QByteArray& frame, const Destination& to)
{
    const qint32 sum =
        sendInPieces(frame, [&](const char* data, qint64 size) { return write(data, size, to); });
    return classifySent(sum, frame.size());
}

SendOutcome UdpLink::sendUnicast(const QByteArray& frame)
{
    const SendOutcome outcome = send(frame, destination());
    report(outcome, unicastLines, frame);
    return outcome;
}

SendOutcome UdpLink::sendBroadcast(const QByteArray& frame)
{
    const Destination everyone{{}, QHostAddress(QHostAddress::Broadcast), destination().port};
    const SendOutcome outcome =
        classifySent(write(frame.constData(), frame.size(), everyone), frame.size());
    report(outcome, broadcastLines, frame);
    return outcome;
}

bool UdpLink::sendTo(const QString& ip, const QByteArray& frame)
{
    const Destination to = destination();
    if (to.text != ip) {
        return false;
    }
    const SendOutcome outcome = send(frame, to);
    const auto tell = [link = shared_from_this(), outcome, frame] {
        report(outcome, unicastLines, frame);
        if (outcome == SendOutcome::Unknown) {
            Q_EMIT link->unknownSent();
        }
    };
    if (isBehind()) {
        tell(); // the host's log holds back who fills it
    } else {
        reports().put(tell);
    }
    return true;
}

void UdpLink::reportFailure(const char* text)
{
    reports().put([text] {
        qCDebug(debugLine) << text;
        Utility_Manage::writeLog(QLatin1String(text));
    });
}

bool UdpLink::isBehind()
{
    return reports().size() >= reportLimit;
}

SendOutcome classifySent(qint64 sum, qint64 frameSize)
{
    if (sum == frameSize) {
        return SendOutcome::Successful;
    }
    if (sum == inProgress) {
        return SendOutcome::Failed;
    }
    return sum == -1 ? SendOutcome::BroadcastFailed : SendOutcome::Unknown;
}
