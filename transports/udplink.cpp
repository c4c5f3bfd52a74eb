// SPDX-License-Identifier: MIT
#include "udplink.h"

#include "debugline.h"
#include "handoverthread.h"
#include "replyqueue.h"
#include "utility_manage.h"

#include <chrono>
#include <functional>
#include <thread>

namespace
{

constexpr std::chrono::milliseconds rebuildPause{1};
constexpr int rebuildLooks = 1000; // a rebuild takes a millisecond or two
constexpr std::size_t reportLimit = 65536;

// The result of an operation that is still in progress, as the device's first driver returned it.
constexpr qint64 inProgress = -115;

struct SentTexts {
    const char* successful;
    const char* failed;
    const char* broadcastFailed;
    const char* unknown;
};

// A plain failure of a unicast is reported with the broadcast's wording: log readers rely on it.
constexpr SentTexts unicastTexts{"Send successful", "Send failed", "Send Broadcast failed",
                                 "Send unknown"};
constexpr SentTexts broadcastTexts{"Send Broadcast successful", "Send Broadcast failed",
                                   "Send Broadcast failed", "Send Broadcast unknown"};

void report(SendOutcome outcome, const SentTexts& texts, const QByteArray& frame)
{
    switch (outcome) {
    case SendOutcome::Successful:
        qCDebug(debugLine) << texts.successful;
        Utility_Manage::writeLog(textWithBytes("Send successful:", frame));
        break;
    case SendOutcome::Failed:
        qCDebug(debugLine) << texts.failed;
        break;
    case SendOutcome::BroadcastFailed:
        qCDebug(debugLine) << texts.broadcastFailed;
        break;
    case SendOutcome::Unknown:
        qCDebug(debugLine) << texts.unknown;
        break;
    }
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

std::shared_ptr<UdpSocket> UdpLink::exchange(std::shared_ptr<UdpSocket> next, bool rebuild)
{
    const std::lock_guard lock(socketLock);
    rebuilding = rebuild;
    socket.swap(next);
    return next;
}

std::shared_ptr<UdpSocket> UdpLink::attach(quint16 localPort)
{
    auto next = std::make_shared<UdpSocket>(localPort);
    const bool isServed = hasThreads();
    if (isServed) {
        next->open();
    }
    exchange(next, false);
    if (!isServed) {
        Utility_Manage::writeLog(QStringLiteral("UDP: the system refuses a thread, link closed"));
    }
    return next;
}

void UdpLink::detach()
{
    if (const auto last = exchange(nullptr, true)) {
        last->retire();
    }
}

void UdpLink::abandon()
{
    if (const auto last = exchange(nullptr, false)) {
        last->retire();
    }
}

void UdpLink::setDeviceIP(const QString& ip)
{
    const QHostAddress parsed(ip);
    const std::lock_guard lock(destinationLock);
    strDeviceIP = ip;
    deviceAddress = parsed;
}

quint16 UdpLink::port() const
{
    return static_cast<quint16>(nPort.load(std::memory_order_relaxed));
}

std::shared_ptr<UdpSocket> UdpLink::socketNow() const
{
    for (int look = 0;; ++look) {
        {
            const std::lock_guard lock(socketLock);
            if (!rebuilding || look == rebuildLooks) {
                return socket;
            }
        }
        std::this_thread::sleep_for(rebuildPause);
    }
}

// A socket that is rebuilt meanwhile is no failure: the datagram goes through the new one.
qint64 UdpLink::write(const char* data, int size, const Destination& to)
{
    for (auto through = socketNow(); through; through = socketNow()) {
        if (!through->isOpen() && hasThreads() && through->open()) {
            Q_EMIT opened();
        }
        const qint64 written = through->write(data, size, to.address, to.port);
        if (written >= 0 || !through->isRetired()) {
            return written;
        }
    }
    return -1;
}

SendOutcome UdpLink::send(const QByteArray& frame, const Destination& to)
{
    const qint32 sum =
        sendInPieces(frame, [&](const char* data, int size) { return write(data, size, to); });
    return classifySent(sum, frame.size());
}

SendOutcome UdpLink::sendUnicast(const QByteArray& frame)
{
    (void)socketNow(); // a rebuild that it waits for changes the destination
    Destination device;
    {
        const std::lock_guard lock(destinationLock);
        device = {deviceAddress, port()};
    }
    const SendOutcome outcome = send(frame, device);
    report(outcome, unicastTexts, frame);
    return outcome;
}

SendOutcome UdpLink::sendBroadcast(const QByteArray& frame)
{
    const Destination everyone{QHostAddress(QHostAddress::Broadcast), port()};
    const SendOutcome outcome =
        classifySent(write(frame.constData(), frame.size(), everyone), frame.size());
    report(outcome, broadcastTexts, frame);
    return outcome;
}

bool UdpLink::sendTo(const QString& ip, const QByteArray& frame)
{
    Destination device;
    {
        const std::lock_guard lock(destinationLock);
        if (strDeviceIP != ip) {
            return false;
        }
        device = {deviceAddress, port()};
    }
    const SendOutcome outcome = send(frame, device);
    const auto tell = [link = shared_from_this(), outcome, frame] {
        report(outcome, unicastTexts, frame);
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

SendOutcome classifySent(qint64 sum, int frameSize)
{
    if (sum == frameSize) {
        return SendOutcome::Successful;
    }
    if (sum == inProgress) {
        return SendOutcome::Failed;
    }
    return sum == -1 ? SendOutcome::BroadcastFailed : SendOutcome::Unknown;
}
