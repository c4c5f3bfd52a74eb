// SPDX-License-Identifier: MIT
#pragma once

#include <QHostAddress>

#include <atomic>
#include <vector>

/// One UDP socket on a port of every interface. No operation blocks. One thread may read while
/// others, one at a time, open, write or close; nobody reads while it is closed.
class UdpSocket
{
public:
    UdpSocket() = default;
    ~UdpSocket() { close(); }
    UdpSocket(const UdpSocket&) = delete;
    UdpSocket& operator=(const UdpSocket&) = delete;

    /// Opens the socket and binds it to the local port. A port that is taken is no error: datagrams
    /// can be sent then, but none is received. False if the system has no descriptor or memory.
    /// Only while closed.
    bool open(quint16 localPort);
    void close();
    bool isOpen() const { return descriptor >= 0; }

    /// The descriptor to watch for datagrams; -1 while none can be received.
    int readable() const { return isBound ? descriptor.load() : -1; }

    /// Sends one datagram. Returns its size, or -1 if it was not sent, always while closed.
    qint64 write(const char* data, qint64 size, const QHostAddress& address, quint16 port);

    /// Reads one datagram, its sender's address and port. False if there is none.
    bool read(QByteArray& datagram, QHostAddress& sender, quint16& port);

private:
    bool openFamily(int family, quint16 localPort);

    std::atomic<int> descriptor{-1};
    std::atomic<bool> isBound{false};
    bool mapsIpv4 = false;        // an IPv6 socket that carries both: IPv4 goes as ::ffff:a.b.c.d
    std::vector<char> readBuffer; // room for the largest datagram, from the first read on
};
