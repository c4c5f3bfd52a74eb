// SPDX-License-Identifier: MIT
#include "networknamespace.h"

#include <cstring>

#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

networknamespace::Loopback networknamespace::raiseLoopback()
{
    const int descriptor = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq request{};
    std::strcpy(request.ifr_name, "lo");
    auto state = Loopback::IsDown;
    if (ioctl(descriptor, SIOCGIFFLAGS, &request) == 0) {
        if ((request.ifr_flags & IFF_UP) != 0) {
            state = Loopback::WasUp;
        } else {
            request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
            state = ioctl(descriptor, SIOCSIFFLAGS, &request) == 0 ? Loopback::IsUpNow
                                                                   : Loopback::IsDown;
        }
    }
    close(descriptor);
    return state;
}

bool networknamespace::enter()
{
    return (unshare(CLONE_NEWNET) == 0 || unshare(CLONE_NEWUSER | CLONE_NEWNET) == 0) &&
           raiseLoopback() != Loopback::IsDown;
}
