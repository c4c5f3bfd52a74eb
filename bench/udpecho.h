// SPDX-License-Identifier: MIT
#pragma once

#include <QtGlobal>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace udpecho
{

constexpr char reply[] = "<F010203040506071c>";
inline sockaddr_in loopback(quint16 port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

} // namespace udpecho

/// Answers every datagram with the same reply, on a thread of its own.
class UdpEcho
{
public:
    UdpEcho() : descriptor(socket(AF_INET, SOCK_DGRAM, 0))
    {
        sockaddr_in address = udpecho::loopback(0);
        socklen_t length = sizeof address;
        if (bind(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
            std::perror("UdpEcho: bind");
            std::exit(1);
        }
        getsockname(descriptor, reinterpret_cast<sockaddr*>(&address), &length);
        port = ntohs(address.sin_port);
        const timeval pause{0, 100000};
        setsockopt(descriptor, SOL_SOCKET, SO_RCVTIMEO, &pause, sizeof pause);
        thread = std::thread([this] { run(); });
    }
    ~UdpEcho()
    {
        stop = true;
        thread.join();
        close(descriptor);
    }
    UdpEcho(const UdpEcho&) = delete;
    UdpEcho& operator=(const UdpEcho&) = delete;

    quint16 port = 0;

private:
    void run() const
    {
        while (!stop) {
            char buffer[2048];
            sockaddr_in from{};
            socklen_t length = sizeof from;
            if (recvfrom(descriptor, buffer, sizeof buffer, 0, reinterpret_cast<sockaddr*>(&from),
                         &length) > 0) {
                sendto(descriptor, udpecho::reply, sizeof udpecho::reply - 1, 0,
                       reinterpret_cast<sockaddr*>(&from), length);
            }
        }
    }

    int descriptor;
    std::atomic<bool> stop{false};
    std::thread thread;
};
