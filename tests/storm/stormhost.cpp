// SPDX-License-Identifier: MIT
#include "stormhost.h"

#include "biz_cmdswork.h"
#include "biz_osd_cmdswork.h"
#include "utility_manage.h"

#include <array>

namespace
{

using std::chrono::milliseconds;

constexpr int links = StormHost::displayLink + 1;

std::atomic<bool> rough{false};
std::atomic<long> replyCount{0};
std::atomic<long> lineCount{0};
std::atomic<unsigned> logSeed{1};
std::array<std::atomic<int>, links> lastTags{};

void note(int link, int tag)
{
    ++replyCount;
    if (link >= 0 && link < links) {
        lastTags.at(static_cast<std::size_t>(link)) = tag;
    }
}

} // namespace

// Takes the place of the reference host's.
void Utility_Manage::writeLog(QString /*text*/)
{
    ++lineCount;
    thread_local Random random(logSeed++);
    if (rough && below(random, 50) == 0) {
        std::this_thread::sleep_for(milliseconds(below(random, 20) == 0 ? 1500 : 20));
    }
}

StormHost::StormHost(Watchdog& watchdog, unsigned seed)
    : mark(watchdog.add("host")), random(seed), thread([this] { run(); })
{
    logSeed = seed;
}

StormHost::~StormHost()
{
    goesOn = false;
    thread.join();
}

void StormHost::beRough(bool on)
{
    rough = on;
}

bool StormHost::hasCome(int link, int tag)
{
    return lastTags.at(static_cast<std::size_t>(link)) == tag;
}

void StormHost::forgetReplies()
{
    for (auto& tag : lastTags) {
        tag = -1;
    }
}

long StormHost::replies()
{
    return replyCount;
}

long StormHost::lines()
{
    return lineCount;
}

void StormHost::run()
{
    mark.begin();
    while (goesOn) {
        if (rough) {
            mark.now("keep a lock");
            keepALock();
        }
        mark.now("take replies");
        takeReplies();
        std::this_thread::sleep_for(milliseconds(5 + below(random, 30)));
    }
    mark.end();
}

void StormHost::keepALock()
{
    const milliseconds duration(below(random, 60) == 0 ? 1500 : below(random, 30));
    switch (below(random, 4)) {
    case 0: {
        const std::lock_guard queue(biz_CMDSWork::receiveHexCmdlock);
        std::this_thread::sleep_for(duration);
        break;
    }
    case 1: {
        const std::lock_guard flag(biz_CMDSWork::HexCmdlock);
        std::this_thread::sleep_for(duration);
        break;
    }
    case 2: {
        const std::lock_guard queue(biz_CMDSWork::receiveHexCmdlock);
        const std::lock_guard flag(biz_CMDSWork::HexCmdlock);
        std::this_thread::sleep_for(duration);
        break;
    }
    default: {
        const std::lock_guard display(biz_Osd_CMDSWork::receiveOsdlock);
        std::this_thread::sleep_for(duration);
    }
    }
}

void StormHost::takeReplies()
{
    std::deque<model_Protocoldata> records;
    std::deque<model_OsdParam> acknowledgements;
    {
        const std::lock_guard queue(biz_CMDSWork::receiveHexCmdlock);
        records.swap(biz_CMDSWork::receivequeueHexCmd);
        const std::lock_guard flag(biz_CMDSWork::HexCmdlock);
        biz_CMDSWork::bRetFlag = false;
    }
    {
        const std::lock_guard display(biz_Osd_CMDSWork::receiveOsdlock);
        acknowledgements.swap(biz_Osd_CMDSWork::receivequeueOsd);
    }
    for (const auto& record : records) {
        note(record.CMD - firstCommand, record.DAT1);
    }
    for (const auto& acknowledgement : acknowledgements) {
        note(displayLink, static_cast<unsigned char>(acknowledgement.arryData.at(2)));
    }
}
