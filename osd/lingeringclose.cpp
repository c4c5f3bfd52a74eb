// SPDX-License-Identifier: MIT
#include "lingeringclose.h"

#include "detachedthread.h"
#include "processend.h"

#include <cerrno>
#include <deque>
#include <mutex>
#include <thread>

#include <sys/socket.h>
#include <unistd.h>

namespace
{

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds lookInterval{10};
constexpr std::size_t most = 128;
constexpr std::size_t dropSize = std::size_t{64} * 1024;
constexpr int dropsAtOnce = 64; // a peer that floods does not hold up the others

struct Connection {
    int descriptor;
    Clock::time_point end;
};

struct Lingering {
    std::mutex lock; // a leaf
    std::deque<Connection> connections;
    bool served = false;
};

// Never destroyed: the thread may still serve while the process ends.
Lingering& lingering()
{
    static auto* const instance = new Lingering;
    return *instance;
}

// Drops what has come. True if more may come.
bool dropReceived(int descriptor)
{
    for (int i = 0; i < dropsAtOnce; ++i) {
        const ssize_t size = recv(descriptor, nullptr, dropSize, MSG_TRUNC | MSG_DONTWAIT);
        if (size <= 0) {
            return size < 0 && (errno == EAGAIN || errno == EINTR);
        }
    }
    return true;
}

void closeAt(std::deque<Connection>& connections, std::size_t index)
{
    (void)dropReceived(connections[index].descriptor);
    close(connections[index].descriptor);
    connections.erase(connections.begin() + static_cast<std::ptrdiff_t>(index));
}

// False when nothing is left to serve.
bool serveOnce()
{
    const std::lock_guard lock(lingering().lock);
    auto& connections = lingering().connections;
    const Clock::time_point now = Clock::now();
    for (std::size_t i = connections.size(); i-- > 0;) {
        const bool open = dropReceived(connections[i].descriptor);
        if (!open || now >= connections[i].end || processend::begun()) {
            closeAt(connections, i);
        }
    }
    lingering().served = !connections.empty();
    return lingering().served;
}

void serve()
{
    while (serveOnce()) {
        std::this_thread::sleep_for(lookInterval);
    }
}

} // namespace

void lingeringclose::begin(int descriptor, std::chrono::milliseconds limit)
{
    shutdown(descriptor, SHUT_WR);
    const std::lock_guard lock(lingering().lock);
    auto& connections = lingering().connections;
    if (connections.size() == most) {
        closeAt(connections, 0);
    }
    connections.push_back({descriptor, Clock::now() + limit});
    if (!lingering().served) {
        lingering().served = startDetached(serve);
    }
    if (!lingering().served) {
        closeAt(connections, connections.size() - 1);
    }
}
