// SPDX-License-Identifier: MIT
#include "netns.h"

#include "tools/networknamespace.h"

#include <cstdlib>

namespace
{

bool done = false;

} // namespace

bool netns::isolate()
{
    done = networknamespace::enter();
    return done;
}

bool netns::isolated()
{
    return done;
}

bool netns::run(const char* command)
{
    return std::system(command) == 0;
}
