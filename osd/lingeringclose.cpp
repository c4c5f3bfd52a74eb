// SPDX-License-Identifier: MIT
#include "lingeringclose.h"

#include "detachedthread.h"

#include <algorithm>
#include <cerrno>
#include <mutex>
#include <thread>
#include <vector>

#include <sys/socket.h>
#include <unistd.h>

namespace
{

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds pollInterval{10};
constexpr std::size_t connectionLimit = 128;
constexpr std::size_t dropSize = std::size_t{64} * 1024;
constexpr int dropsAtOnce = 64; // a peer that floods does not hold up the others

struct Connection {
    int descriptor;
    Clock::time_point end;
};

struct Lingering {
    std::mutex lock;                     // a leaf
    std::vector<Connection> connections; // oldest first
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

bool closeIfEnded(const Connection& connection)
{
    const bool open = dropReceived(connection.descriptor);
    if (open && Clock::now() < connection.end && !processend::begun()) {
        return false;
    }
    close(connection.descriptor);
    return true;
}

// The lock is held.
void closeEnded()
{
    auto& connections = lingering().connections;
    connections.erase(std::remove_if(connections.begin(), connections.end(), closeIfEnded),
                      connections.end());
}

void serve()
{
    for (bool any = true; any; std::this_thread::sleep_for(pollInterval)) {
        const std::lock_guard lock(lingering().lock);
        closeEnded();
        any = lingering().served = !lingering().connections.empty();
    }
}

} // namespace

void lingeringclose::begin(int descriptor, std::chrono::milliseconds limit)
{
    shutdown(descriptor, SHUT_WR);
    const std::lock_guard lock(lingering().lock);
    auto& connections = lingering().connections;
    connections.push_back({descriptor, Clock::now() + limit});
    lingering().served = lingering().served || startDetached(serve);
    if (!lingering().served || connections.size() > connectionLimit) {
        connections.front().end = Clock::time_point::min();
        closeEnded();
    }
}
