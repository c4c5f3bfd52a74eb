// SPDX-License-Identifier: MIT
#include "endhost.h"

#include "biz_cmdswork.h"
#include "biz_osd_cmdswork.h"
#include "utility_manage.h"

#include <QtGlobal>

#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include <execinfo.h>
#include <signal.h>
#include <sys/mman.h>
#include <unistd.h>

namespace
{

using std::chrono::milliseconds;

constexpr std::size_t pageSize = 4096;
constexpr milliseconds lateness{20};

std::atomic<bool> isGone{false};
std::atomic<int> reportTo{-1};
std::atomic<endhost::Log> logDoes{endhost::Log::Writes};
std::atomic<int> inLog{0};
std::atomic<int> waitingThreads{0};
std::atomic<bool> ends{false};

long long now()
{
    return std::chrono::nanoseconds(std::chrono::steady_clock::now().time_since_epoch()).count();
}

void report(const std::string& text)
{
    const std::string line = text + "\n";
    (void)!write(reportTo, line.data(), line.size());
}

// Whether the host is still there.
void look(const char* where)
{
    if (isGone) {
        report(std::string("touched behind its end: ") + where);
        std::abort();
    }
}

[[noreturn]] void waitForEver()
{
    for (;;) {
        pause();
    }
}

void inTheLog(const char* where)
{
    look(where);
    switch (logDoes.load()) {
    case endhost::Log::Writes:
        break;
    case endhost::Log::Exits:
        endhost::endOnce();
        break;
    case endhost::Log::Blocks:
        ++inLog;
        waitForEver();
    case endhost::Log::ReturnsLate:
        ++inLog;
        while (!isGone) {
            std::this_thread::sleep_for(milliseconds(1));
        }
    }
}

[[maybe_unused]] void reportStack(int signal)
{
    std::array<void*, 40> frames{};
    backtrace_symbols_fd(frames.data(), backtrace(frames.data(), frames.size()), reportTo);
    _exit(128 + signal);
}

// The last of these objects to go: it is made first.
struct Closing {
    ~Closing();
};

// The first of them to go, while the others are whole.
struct Going {
    ~Going();
};

} // namespace

// In this order: the first and the last page are nobody else's.
#ifdef __clang__ // which never reorders
#define HOST_STATE [[gnu::section("hoststate")]]
#else
#define HOST_STATE [[gnu::section("hoststate"), gnu::no_reorder]]
#endif
HOST_STATE [[gnu::aligned(pageSize)]] static char firstPage[pageSize] = {1};
static Closing closing;
HOST_STATE std::mutex biz_CMDSWork::HexCmdlock;
HOST_STATE bool biz_CMDSWork::bRetFlag = false;
HOST_STATE std::mutex biz_CMDSWork::receiveHexCmdlock;
HOST_STATE std::deque<model_Protocoldata> biz_CMDSWork::receivequeueHexCmd;
HOST_STATE std::mutex biz_Osd_CMDSWork::receiveOsdlock;
HOST_STATE std::deque<model_OsdParam> biz_Osd_CMDSWork::receivequeueOsd;
static Going going;
HOST_STATE [[gnu::aligned(pageSize)]] static char lastPage[pageSize] = {1};

namespace
{

Going::~Going()
{
    std::string line = "gone " + std::to_string(now());
    for (const auto& record : biz_CMDSWork::receivequeueHexCmd) {
        line += " " + std::to_string(record.DAT1);
    }
    for (const auto& record : biz_Osd_CMDSWork::receivequeueOsd) {
        line += " " + std::to_string(static_cast<unsigned char>(record.arryData.at(2)));
    }
    report(line);
    isGone = true;
}

Closing::~Closing()
{
    const auto size = static_cast<std::size_t>(lastPage - firstPage) + pageSize;
    if (mprotect(firstPage, size, PROT_NONE) != 0) {
        std::abort();
    }
    std::this_thread::sleep_for(lateness); // for who comes late
}

} // namespace

void endhost::begin(int descriptor)
{
    reportTo = descriptor;
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {
        if (gettid() == getpid()) { // keeps the library's threads only
            look("message handler");
        } else {
            inTheLog("message handler");
        }
    });
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    (void)signal(SIGSEGV, reportStack);
#endif
}

void endhost::note(const char* text)
{
    report(text + (" " + std::to_string(now())));
}

void endhost::setLog(Log what)
{
    logDoes = what;
}

bool endhost::isInLog()
{
    return inLog > 0;
}

void endhost::keepQueues()
{
    biz_CMDSWork::receiveHexCmdlock.lock();
    biz_Osd_CMDSWork::receiveOsdlock.lock();
}

void endhost::releaseQueues()
{
    biz_Osd_CMDSWork::receiveOsdlock.unlock();
    biz_CMDSWork::receiveHexCmdlock.unlock();
}

void endhost::keepFlag()
{
    biz_CMDSWork::HexCmdlock.lock();
}

std::size_t endhost::replies()
{
    const std::lock_guard queue(biz_CMDSWork::receiveHexCmdlock);
    const std::lock_guard display(biz_Osd_CMDSWork::receiveOsdlock);
    return biz_CMDSWork::receivequeueHexCmd.size() + biz_Osd_CMDSWork::receivequeueOsd.size();
}

int endhost::waiting()
{
    return waitingThreads;
}

void endhost::endOnce()
{
    if (ends.exchange(true)) {
        waitForEver();
    }
    note("end");
    std::exit(0);
}

biz_CMDSWork::biz_CMDSWork()
{
    look("biz_CMDSWork");
}

biz_CMDSWork::~biz_CMDSWork()
{
    look("~biz_CMDSWork");
}

void biz_CMDSWork::clearQueue()
{
    look("clearQueue");
}

void biz_Osd_CMDSWork::addToReceiveQueue(model_OsdParam record)
{
    inTheLog("addToReceiveQueue");
    if (isGone) { // as a host would that has just been kept
        return;
    }
    ++waitingThreads;
    const std::lock_guard lock(receiveOsdlock);
    --waitingThreads;
    receivequeueOsd.push_back(std::move(record));
}

void Utility_Manage::writeLog(QString /*text*/)
{
    inTheLog("writeLog");
}

qint16 Utility_Manage::combineTwoByte(quint8 first, quint8 second)
{
    look("combineTwoByte");
    return static_cast<qint16>(second * 256 + first);
}

quint8 Utility_Manage::getHighByte(quint16 value)
{
    look("getHighByte");
    return static_cast<quint8>(value >> 8);
}

quint8 Utility_Manage::getLowByte(quint16 value)
{
    look("getLowByte");
    return static_cast<quint8>(value & 0xff);
}

model_GlobalEnum::DeviceType Utility_Manage::getDeviceType()
{
    look("getDeviceType");
    return model_GlobalEnum::DeviceUnknown;
}
