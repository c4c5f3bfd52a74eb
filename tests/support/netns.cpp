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
// gets the same pseudo-terminal in between would be refused it. And a port whose device has gone
// may be opened again by its name: in one directory, that may be another process's port by then.
void takeOwnTerminals()
{
    if (unshare(CLONE_NEWNS) != 0 ||
        mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("tmpfs", "/run/lock", "tmpfs", 0, nullptr) != 0 ||
        mount("devpts", "/dev/pts", "devpts", 0, "mode=620,ptmxmode=666") != 0) {
        std::perror("lock files and pseudo-terminals of its own");
    }
}

} // namespace

bool netns::isolate()
{
    done = networknamespace::enter();
    if (done) {
        takeOwnTerminals();
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

void netns::enlargeReceiveBuffers()
{
    if (done) {
        std::ofstream("/proc/sys/net/ipv4/tcp_rmem") << "4096 16777216 16777216";
    }
}

void netns::limitBuffers()
{
    limitReceiveBuffers();
    if (done) {
        std::ofstream("/proc/sys/net/ipv4/tcp_wmem") << "4096 65536 262144";
    }
}

bool netns::run(const char* command)
{
    return std::system(command) == 0;
}
