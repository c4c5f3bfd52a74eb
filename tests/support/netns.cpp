// SPDX-License-Identifier: MIT
#include "netns.h"

#include "tools/system/networknamespace.h"

#include <cstdio>
#include <cstdlib>
#include <fstream>

#include <sched.h>
#include <sys/mount.h>

namespace
{

bool done = false;

// A serial port that is closed is free a moment before its lock file has gone: another process that
// gets the same pseudo-terminal in between would be refused it.
void takeOwnLockFiles()
{
    if (unshare(CLONE_NEWNS) != 0 ||
        mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", "/run/lock", "tmpfs", 0, nullptr) != 0) {
        std::perror("lock files of its own");
    }
}

} // namespace

bool netns::isolate()
{
    done = networknamespace::enter();
    if (done) {
        takeOwnLockFiles();
    }
    return done;
}

bool netns::isolated()
{
    return done;
}

void netns::limitReceiveBuffers()
{
    if (done) {
        std::ofstream("/proc/sys/net/ipv4/tcp_rmem") << "4096 65536 262144";
    }
}

bool netns::run(const char* command)
{
    return std::system(command) == 0;
}
