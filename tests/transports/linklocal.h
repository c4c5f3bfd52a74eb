// SPDX-License-Identifier: MIT
#pragma once

#include "tests/support/eventually.h"
#include "tests/support/netns.h"

#include <string>

/// Link-local addresses, which tell two machines apart only together with an interface.
namespace linklocal
{

/// Joins the interfaces host0 and device0, which both get the address fe80::1. For an isolated
/// process. False if IPv6 is missing.
inline bool addInterfaces()
{
    bool areThere = netns::run("ip link add host0 type veth peer name device0 && "
                               "ip link set host0 up && ip link set device0 up && "
                               "ip -6 addr add fe80::1/64 dev host0 nodad && "
                               "ip -6 addr add fe80::1/64 dev device0 nodad");
    for (const char* end : {"host0", "device0"}) { // the kernel's own thread makes them known
        const std::string isKnown =
            std::string("ip -6 route show table local | grep -q 'local fe80::1 dev ") + end + "'";
        areThere = areThere && eventually([&isKnown] { return netns::run(isKnown.c_str()); });
    }
    return areThere;
}

} // namespace linklocal
