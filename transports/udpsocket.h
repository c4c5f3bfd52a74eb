// SPDX-License-Identifier: MIT
#pragma once

#include <QHostAddress>

#include <atomic>
#include <mutex>
#include <vector>

/// One UDP socket, bound to a port of every interface: a descriptor that several threads may write
/// at once and one may read. No operation blocks.
class UdpSocket
{
public:
    explicit UdpSocket(quint16 port) : localPort(port) {}
    ~UdpSocket();
    UdpSocket(const UdpSocket&) = delete;
    UdpSocket& operator=(const UdpSocket&) = delete;

    /// Opens and binds it, unless it is open. False if there is no descriptor or no memory. Any
    /// thread.
    bool open();
    bool isOpen() const { return descriptor >= 0; }

    /// The descriptor, to be watched for datagrams; -1 while nothing can be received: it is not
    /// open, or its port was taken.
    int readable() const { return isBound ? descriptor.load() : -1; }

    /// Sends one datagram. Returns its size, or -1 and nothing has left: always while it
    /// is not open. Any thread.
    qint64 write(const char* data, qint64 size, const QHostAddress& address, quint16 port);

    /// Reads one datagram and its sender; false if there is none. To be called by one thread.
    bool read(QByteArray& datagram, QHostAddress& sender);

    /// Closes it for good, after the writes that are under way. To be called by the reading thread.
    void retire();

    bool isRetired() const { return retired; }

private:
    bool openFamily(int family);

    const quint16 localPort;
    std::mutex openLock; // a leaf: opening
    std::atomic<int> descriptor{-1};
    std::atomic<bool> isBound{false};
    bool mapsIpv4 = false; // an IPv6 socket that carries both: IPv4 goes as ::ffff:a.b.c.d
    std::atomic<int> writesUnderWay{0};
    std::atomic<bool> retired{false};
    std::vector<char> readBuffer; // room for the largest datagram, once one is read
};
