// SPDX-License-Identifier: MIT
#include "udpsocket.h"

#include <QNetworkInterface>

#include <cerrno>
#include <cstring>

#include <net/if.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

constexpr std::size_t largestDatagram = 65536;
constexpr int receiveBufferBytes = 4 * 1024 * 1024; // 2,000 replies with the kernel's overhead

struct SocketAddress {
    sockaddr_storage storage{};
    socklen_t length = 0;

    const sockaddr* get() const { return reinterpret_cast<const sockaddr*>(&storage); }
};

template <class Address>
SocketAddress toSocketAddress(const Address& address)
{
    SocketAddress result;
    std::memcpy(&result.storage, &address, sizeof address);
    result.length = sizeof address;
    return result;
}

SocketAddress ipv4Address(quint32 address, quint16 port)
{
    sockaddr_in in{};
    in.sin_family = AF_INET;
    in.sin_port = htons(port);
    in.sin_addr.s_addr = htonl(address);
    return toSocketAddress(in);
}

SocketAddress ipv6Address(const QHostAddress& address, quint16 port)
{
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
    return toSocketAddress(in6);
}

SocketAddress toSocketAddress(const QHostAddress& address, quint16 port, bool mapsIpv4)
{
    bool isIpv4 = false;
    const quint32 ipv4 = address.toIPv4Address(&isIpv4);
    return isIpv4 && !mapsIpv4 ? ipv4Address(ipv4, port) : ipv6Address(address, port);
}

unsigned scopeOf(const sockaddr_storage& address)
{
    sockaddr_in6 in6{};
    std::memcpy(&in6, &address, sizeof in6);
    return in6.sin6_family == AF_INET6 ? in6.sin6_scope_id : 0;
}

// In the same place for IPv4 and IPv6.
quint16 portOf(const sockaddr_storage& address)
{
    sockaddr_in6 in6{};
    std::memcpy(&in6, &address, sizeof in6);
    return ntohs(in6.sin6_port);
}

void setOption(int descriptor, int level, int option, int value)
{
    setsockopt(descriptor, level, option, &value, sizeof value);
}

void askForReceiveBuffer(int descriptor)
{
    setOption(descriptor, SOL_SOCKET, SO_RCVBUF, receiveBufferBytes);
    setOption(descriptor, SOL_SOCKET, SO_RCVBUFFORCE, receiveBufferBytes); // needs a privilege
}

} // namespace

bool UdpSocket::open(quint16 localPort)
{
    return openFamily(AF_INET6, localPort) ||
           (errno == EAFNOSUPPORT && openFamily(AF_INET, localPort));
}

bool UdpSocket::openFamily(int family, quint16 localPort)
{
    const int opened = socket(family, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (opened < 0) {
        return false;
    }
    mapsIpv4 = family == AF_INET6;
    if (mapsIpv4) {
        setOption(opened, IPPROTO_IPV6, IPV6_V6ONLY, 0);
    }
    setOption(opened, SOL_SOCKET, SO_BROADCAST, 1);
    askForReceiveBuffer(opened);
    const SocketAddress any = mapsIpv4 ? ipv6Address(QHostAddress(QHostAddress::AnyIPv6), localPort)
                                       : ipv4Address(INADDR_ANY, localPort);
    isBound = bind(opened, any.get(), any.length) == 0;
    descriptor = opened;
    return true;
}

qint64 UdpSocket::write(const char* data, qint64 size, const QHostAddress& address, quint16 port)
{
    // The kernel would send what has no address to loopback.
    if (!isOpen() || address.isNull()) {
        return -1;
    }
    const SocketAddress to = toSocketAddress(address, port, mapsIpv4);
    qint64 written = -1;
    do {
        written = sendto(descriptor, data, static_cast<std::size_t>(size), 0, to.get(), to.length);
    } while (written < 0 && errno == EINTR);
    return written;
}

bool UdpSocket::read(QByteArray& datagram, QHostAddress& sender, quint16& port)
{
    readBuffer.resize(largestDatagram);
    sockaddr_storage from{};
    ssize_t size = -1;
    do {
        socklen_t length = sizeof from;
        size = recvfrom(readable(), readBuffer.data(), readBuffer.size(), MSG_DONTWAIT,
                        reinterpret_cast<sockaddr*>(&from), &length);
    } while (size < 0 && errno == EINTR);
    if (size < 0) {
        return false;
    }
    datagram = QByteArray(readBuffer.data(), static_cast<int>(size));
    sender.setAddress(reinterpret_cast<const sockaddr*>(&from));
    port = portOf(from);
    if (const unsigned scope = scopeOf(from)) {
        sender.setScopeId(QNetworkInterface::interfaceNameFromIndex(static_cast<int>(scope)));
    }
    return true;
}

void UdpSocket::close()
{
    isBound = false;
    const int closed = descriptor.exchange(-1);
    if (closed >= 0) {
        ::close(closed);
    }
}
