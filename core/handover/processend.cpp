// SPDX-License-Identifier: MIT
#include "processend.h"

#include "debugline.h"
#include "linktap.h"

#include <atomic>
#include <chrono>
#include <thread>

namespace
{

constexpr std::chrono::milliseconds lookPause{1};
constexpr int looks = 200;

std::atomic<int> present{0};
std::atomic<bool> ending{false};
std::atomic<bool> ended{false};
thread_local int ownCalls = 0; // of those present, this thread's

void waitForThreads()
{
    for (int look = 0; look < looks && present > ownCalls; ++look) {
        std::this_thread::sleep_for(lookPause);
    }
}

// Static objects go in the reverse order of their making.
class Watch
{
public:
    Watch() { prepareDebugLines(); }
    ~Watch()
    {
        ending = true;
        waitForThreads();
        ended = true;
        LinkTap::silence();
        waitForThreads();
    }
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;
};

} // namespace

void processend::watch() noexcept
{
    static const Watch instance;
}

bool processend::begun() noexcept
{
    return ending.load(std::memory_order_relaxed);
}

bool processend::over() noexcept
{
    return ended.load(std::memory_order_relaxed);
}

processend::Presence::Presence() noexcept
{
    ++present;
}

processend::Presence::Presence(const Presence& /*other*/) noexcept : Presence() {}

processend::Presence::~Presence()
{
    --present;
}

// Present before it looks: either it sees the end, or the end sees it.
processend::Call::Call() noexcept
{
    ++ownCalls;
    ++present;
    isInTime = !ended;
}

processend::Call::~Call()
{
    --present;
    --ownCalls;
}
