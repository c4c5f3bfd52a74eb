// SPDX-License-Identifier: MIT
#include "peers.h"

#include <algorithm>
#include <array>
#include <cstdlib>

#include <fcntl.h>
#include <sys/socket.h>
#include <termios.h>
#include <unistd.h>

namespace
{

constexpr int pollMs = 20;
constexpr std::size_t chunkSize = 65536;

// Everything that is there. False if the descriptor is at its end.
bool drain(int descriptor)
{
    std::array<char, chunkSize> bytes{};
    for (;;) {
        const ssize_t size = read(descriptor, bytes.data(), bytes.size());
        if (size <= 0) {
            return size < 0 && errno == EAGAIN;
        }
    }
}

sockaddr_in anyAddress(int port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<in_port_t>(port));
    return address;
}

// A socket of this type that is bound to the port of every address.
int boundSocket(int type, int port)
{
    const int made = socket(AF_INET, type | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const int on = 1;
    (void)setsockopt(made, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
    const sockaddr_in address = anyAddress(port);
    if (bind(made, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) {
        return made;
    }
    ::close(made);
    return -1;
}

void closeAndForget(int& descriptor)
{
    if (descriptor >= 0) {
        ::close(descriptor);
        descriptor = -1;
    }
}

} // namespace

void Peer::answerWith(const QByteArray& reply)
{
    const std::lock_guard guard(lock);
    answer = QByteArray(reply.constData(), reply.size()); // shared with no other thread
}

void Peer::flood(const QByteArray& bytes)
{
    const std::lock_guard guard(lock);
    if (isThere) {
        send(bytes);
    }
}

void Peer::hang(std::chrono::milliseconds duration)
{
    const std::lock_guard guard(lock);
    hangsUntil = Clock::now() + duration;
    hold(true);
}

void Peer::die(bool reset)
{
    const std::lock_guard guard(lock);
    if (isThere) {
        disconnect(reset);
        isThere = false;
    }
}

bool Peer::comeBack()
{
    const std::lock_guard guard(lock);
    isThere = isThere || connect();
    return isThere;
}

std::vector<pollfd> Peer::watched()
{
    const std::lock_guard guard(lock);
    std::vector<pollfd> result;
    if (Clock::now() < hangsUntil) {
        return result;
    }
    hold(false);
    if (isThere) {
        for (const int descriptor : descriptors()) {
            result.push_back({descriptor, POLLIN, 0});
        }
    }
    return result;
}

void Peer::serve(int descriptor)
{
    const std::lock_guard guard(lock);
    const auto now = descriptors(); // it may have died meanwhile
    if (isThere && std::find(now.begin(), now.end(), descriptor) != now.end()) {
        receive(descriptor);
    }
}

bool UdpDevice::connect()
{
    socket = boundSocket(SOCK_DGRAM, port);
    return socket >= 0;
}

void UdpDevice::disconnect(bool /*reset*/)
{
    closeAndForget(socket);
}

void UdpDevice::receive(int descriptor)
{
    std::array<char, chunkSize> bytes{};
    socklen_t length = sizeof host;
    while (recvfrom(descriptor, bytes.data(), bytes.size(), 0, reinterpret_cast<sockaddr*>(&host),
                    &length) > 0) {
        send(answer);
    }
}

void UdpDevice::send(const QByteArray& bytes)
{
    constexpr int mostOfADatagram = 1400;
    for (int start = 0; start < bytes.size(); start += mostOfADatagram) {
        const QByteArray datagram = bytes.mid(start, mostOfADatagram);
        (void)sendto(socket, datagram.constData(), static_cast<std::size_t>(datagram.size()), 0,
                     reinterpret_cast<const sockaddr*>(&host), sizeof host);
    }
}

QString PtyDevice::portName()
{
    const std::lock_guard guard(lock);
    return QString::fromStdString(name);
}

bool PtyDevice::connect()
{
    master = posix_openpt(O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    std::array<char, 64> slave{};
    if (master < 0 || grantpt(master) != 0 || unlockpt(master) != 0 ||
        ptsname_r(master, slave.data(), slave.size()) != 0) {
        closeAndForget(master);
        return false;
    }
    termios raw{};
    tcgetattr(master, &raw); // a pseudo-terminal's two ends share them
    cfmakeraw(&raw);
    tcsetattr(master, TCSANOW, &raw);
    name = slave.data();
    // Held open: the line does not hang up while no host has opened it.
    hostEnd = ::open(slave.data(), O_RDWR | O_NOCTTY | O_CLOEXEC);
    return true;
}

void PtyDevice::disconnect(bool /*reset*/)
{
    closeAndForget(hostEnd);
    closeAndForget(master);
}

void PtyDevice::receive(int descriptor)
{
    if (drain(descriptor)) {
        send(answer);
    }
}

void PtyDevice::send(const QByteArray& bytes)
{
    (void)!write(master, bytes.constData(), static_cast<std::size_t>(bytes.size()));
}

bool TcpDevice::connect()
{
    listener = boundSocket(SOCK_STREAM, port);
    if (listener >= 0 && listen(listener, SOMAXCONN) != 0) {
        closeAndForget(listener);
    }
    return listener >= 0;
}

void TcpDevice::disconnect(bool reset)
{
    closeAndForget(listener);
    for (int& connection : connections) {
        const linger at{reset ? 1 : 0, 0};
        (void)setsockopt(connection, SOL_SOCKET, SO_LINGER, &at, sizeof at);
        closeAndForget(connection);
    }
    connections.clear();
}

std::vector<int> TcpDevice::descriptors() const
{
    auto all = connections;
    all.push_back(listener);
    return all;
}

void TcpDevice::receive(int descriptor)
{
    if (descriptor == listener) {
        const int accepted = accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (accepted >= 0) {
            connections.push_back(accepted);
        }
    } else if (drain(descriptor)) {
        (void)::send(descriptor, answer.constData(), static_cast<std::size_t>(answer.size()),
                     MSG_NOSIGNAL);
    } else {
        ::close(descriptor);
        connections.erase(std::remove(connections.begin(), connections.end(), descriptor),
                          connections.end());
    }
}

void TcpDevice::send(const QByteArray& bytes)
{
    for (const int connection : connections) {
        (void)::send(connection, bytes.constData(), static_cast<std::size_t>(bytes.size()),
                     MSG_NOSIGNAL);
    }
}

PeerThread::PeerThread(std::vector<Peer*> served)
    : peers(std::move(served)), thread([this] { run(); })
{
}

PeerThread::~PeerThread()
{
    goesOn = false;
    thread.join();
}

void PeerThread::run()
{
    while (goesOn) {
        std::vector<pollfd> all;
        std::vector<Peer*> owners;
        for (Peer* const peer : peers) {
            for (const pollfd& one : peer->watched()) {
                all.push_back(one);
                owners.push_back(peer);
            }
        }
        (void)poll(all.data(), all.size(), pollMs);
        for (std::size_t i = 0; i < all.size(); ++i) {
            if (all[i].revents != 0) {
                owners[i]->serve(all[i].fd);
            }
        }
    }
}
