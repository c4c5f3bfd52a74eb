// SPDX-License-Identifier: MIT
#include "networknamespace.h"

#include <cstring>

#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

bool networknamespace::raiseLoopback()
{
    const int descriptor = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request{};
    std::strcpy(request.ifr_name, "lo");
    bool isUp = false;
    if (ioctl(descriptor, SIOCGIFFLAGS, &request) == 0) {
        isUp = (request.ifr_flags & IFF_UP) != 0;
        request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
        isUp = isUp || ioctl(descriptor, SIOCSIFFLAGS, &request) == 0;
    }
    close(descriptor);
    return isUp;
}

bool networknamespace::enter()
{
    return (unshare(CLONE_NEWNET) == 0 || unshare(CLONE_NEWUSER | CLONE_NEWNET) == 0) &&
           raiseLoopback();
}
