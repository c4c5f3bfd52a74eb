// SPDX-License-Identifier: MIT
#include "servicenotice.h"

#include <cstddef>
#include <cstring>

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

void servicenotice::tell(const QByteArray& line)
{
    const QByteArray path = qgetenv("NOTIFY_SOCKET");
    sockaddr_un address{};
    if (path.isEmpty() || path.size() >= static_cast<int>(sizeof address.sun_path)) {
        return;
    }
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.constData(), static_cast<std::size_t>(path.size()));
    if (path.startsWith('@')) { // an abstract name
        address.sun_path[0] = '\0';
    }
    const int socketDescriptor = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    const auto size = offsetof(sockaddr_un, sun_path) + static_cast<std::size_t>(path.size());
    (void)sendto(socketDescriptor, line.constData(), static_cast<std::size_t>(line.size()), 0,
                 reinterpret_cast<const sockaddr*>(&address), static_cast<socklen_t>(size));
    close(socketDescriptor);
}

std::chrono::milliseconds servicenotice::watchdog()
{
    const QByteArray process = qgetenv("WATCHDOG_PID");
    const bool isOther = !process.isEmpty() && process.toLongLong() != getpid();
    return std::chrono::milliseconds(isOther ? 0 : qgetenv("WATCHDOG_USEC").toLongLong() / 1000);
}
