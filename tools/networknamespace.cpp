// SPDX-License-Identifier: MIT
#include "networknamespace.h"

#include <cstring>

#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

bool raiseLoopback()
{
    const int descriptor = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request{};
    std::strcpy(request.ifr_name, "lo");
    request.ifr_flags = IFF_UP | IFF_RUNNING;
    const bool up = descriptor >= 0 && ioctl(descriptor, SIOCSIFFLAGS, &request) == 0;
    close(descriptor);
    return up;
}

} // namespace

bool networknamespace::enter()
{
    return (unshare(CLONE_NEWNET) == 0 || unshare(CLONE_NEWUSER | CLONE_NEWNET) == 0) &&
           raiseLoopback();
}
