// SPDX-License-Identifier: MIT
#include "udplink.h"

#include "core_udp.h"
#include "debugline.h"
#include "processend.h"
#include "utility_manage.h"

#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>

namespace
{

constexpr std::chrono::milliseconds retirePause{1};
constexpr std::chrono::milliseconds rebuildPause{1};
constexpr int rebuildLooks = 1000; // a rebuild takes a millisecond or two

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

struct SocketAddress {
    sockaddr_storage storage{};
    socklen_t length = 0;
};

SocketAddress toSocketAddress(const QHostAddress& address, quint16 port, bool mapsIpv4)
{
    SocketAddress result;
    bool isIpv4 = false;
    const quint32 ipv4 = address.toIPv4Address(&isIpv4);
    if (isIpv4 && !mapsIpv4) {
        sockaddr_in in{};
        in.sin_family = AF_INET;
        in.sin_port = htons(port);
        in.sin_addr.s_addr = htonl(ipv4);
        std::memcpy(&result.storage, &in, sizeof in);
        result.length = sizeof in;
        return result;
    }
    sockaddr_in6 in6{};
    in6.sin6_family = AF_INET6;
    in6.sin6_port = htons(port);
    const Q_IPV6ADDR bytes = address.toIPv6Address(); // an IPv4 address comes out mapped
    std::memcpy(&in6.sin6_addr, &bytes, sizeof in6.sin6_addr);
    const QString scope = address.scopeId();
    if (!scope.isEmpty()) {
        bool isNumber = false;
        const unsigned number = scope.toUInt(&isNumber);
        in6.sin6_scope_id = isNumber ? number : if_nametoindex(scope.toLatin1().constData());
    }
    std::memcpy(&result.storage, &in6, sizeof in6);
    result.length = sizeof in6;
    return result;
}

} // namespace

UdpEndpoint::UdpEndpoint(qintptr socketDescriptor) : descriptor(static_cast<int>(socketDescriptor))
{
    sockaddr_storage local{};
    socklen_t length = sizeof local;
    mapsIpv4 = descriptor >= 0 &&
               getsockname(descriptor, reinterpret_cast<sockaddr*>(&local), &length) == 0 &&
               local.ss_family == AF_INET6;
}

qint64 UdpEndpoint::write(const char* data, qint64 size, const QHostAddress& address, quint16 port)
{
    // A null address must be caught here: the kernel would send to loopback.
    if (descriptor < 0 || address.isNull()) {
        return -1;
    }
    qint64 written = -1;
    writesUnderWay.fetch_add(1);
    if (!retired.load()) {
        const SocketAddress to = toSocketAddress(address, port, mapsIpv4);
        do {
            written = sendto(descriptor, data, static_cast<std::size_t>(size),
                             MSG_DONTWAIT | MSG_NOSIGNAL,
                             reinterpret_cast<const sockaddr*>(&to.storage), to.length);
        } while (written < 0 && errno == EINTR);
    }
    writesUnderWay.fetch_sub(1);
    return written;
}

void UdpEndpoint::retire()
{
    retired.store(true);
    while (writesUnderWay.load() != 0) {
        std::this_thread::sleep_for(retirePause);
    }
}

UdpLink::UdpLink(core_UDP* owner) : transport(owner) {}

std::shared_ptr<UdpEndpoint> UdpLink::exchange(std::shared_ptr<UdpEndpoint> next, bool rebuild)
{
    const std::lock_guard lock(endpointLock);
    rebuilding = rebuild;
    endpoint.swap(next);
    return next;
}

void UdpLink::attach(std::shared_ptr<UdpEndpoint> next)
{
    exchange(std::move(next), false);
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
    const std::lock_guard lock(transportLock);
    transport = nullptr;
}

void UdpLink::setDeviceIP(const QString& ip)
{
    const QHostAddress parsed(ip);
    const std::lock_guard lock(destinationLock);
    strDeviceIP = ip;
    deviceAddress = parsed;
}

QString UdpLink::deviceIP() const
{
    const std::lock_guard lock(destinationLock);
    return strDeviceIP;
}

std::shared_ptr<UdpEndpoint> UdpLink::endpointNow() const
{
    for (int look = 0;; ++look) {
        {
            const std::lock_guard lock(endpointLock);
            if (!rebuilding || look == rebuildLooks) {
                return endpoint;
            }
        }
        std::this_thread::sleep_for(rebuildPause);
    }
}

UdpLink::Route UdpLink::routeNow() const
{
    Route route;
    route.through = endpointNow(); // first: while it waits the destination may change
    route.port = static_cast<quint16>(nPort.load(std::memory_order_relaxed));
    const std::lock_guard lock(destinationLock);
    route.address = deviceAddress;
    return route;
}

// A socket that is rebuilt meanwhile is no failure: what is left goes through the new one. What has
// begun to one device ends there.
SendOutcome UdpLink::sendUnicast(const QByteArray& frame)
{
    Route route = routeNow();
    bool begun = false;
    const qint32 sum = sendInPieces(frame, [&](const char* data, int size) -> qint64 {
        while (route.through) {
            const qint64 written = route.through->write(data, size, route.address, route.port);
            if (written >= 0 || !route.through->isRetired()) {
                begun = true;
                return written;
            }
            Route next = routeNow();
            if (begun) {
                route.through = std::move(next.through);
            } else {
                route = std::move(next);
            }
        }
        return -1;
    });
    const SendOutcome outcome = classifySent(sum, frame.size());
    report(outcome, unicastTexts, frame);
    return outcome;
}

SendOutcome UdpLink::sendBroadcast(const QByteArray& frame)
{
    static const QHostAddress everyone(QHostAddress::Broadcast);
    qint64 written = -1;
    for (Route route = routeNow(); route.through; route = routeNow()) {
        written = route.through->write(frame.constData(), frame.size(), everyone, route.port);
        if (written >= 0 || !route.through->isRetired()) {
            break;
        }
    }
    const SendOutcome outcome = classifySent(written, frame.size());
    report(outcome, broadcastTexts, frame);
    return outcome;
}

void UdpLink::sendLater(QByteArray frame)
{
    if (!outbox.put({shared_from_this(), std::move(frame)})) {
        outbox.drainHere();
    }
}

void UdpLink::sendPending(std::deque<Pending>& batch)
{
    for (const Pending& pending : batch) {
        if (processend::over()) {
            return;
        }
        if (pending.link->sendUnicast(pending.frame) == SendOutcome::Unknown) {
            pending.link->requestReInit();
        }
    }
}

// Through the transport's event queue: a slot connected to the signal is host code, which the
// transport's destructor must not wait for.
void UdpLink::requestReInit()
{
    const std::lock_guard lock(transportLock);
    if (transport != nullptr) {
        QMetaObject::invokeMethod(transport, "signalReInitUdp", Qt::QueuedConnection);
    }
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
