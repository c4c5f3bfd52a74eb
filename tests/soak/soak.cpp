// SPDX-License-Identifier: MIT
// All links of one host at once, for a given time, with peers that misbehave:
//   soak SECONDS SEED [SAMPLES.csv]

#include "biz_cmdswork.h"
#include "biz_osd_cmdswork.h"
#include "corefactory.h"
#include "devicepeers.h"
#include "icorebase.h"
#include "icoreosdbase.h"
#include "netns.h"
#include "osdpeer.h"
#include "processstate.h"
#include "utility_manage.h"

#include <QCoreApplication>
#include <QNetworkProxy>
#include <QTemporaryDir>
#include <QTimer>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <fstream>
#include <map>
#include <sstream>

#include <malloc.h>
#include <unistd.h>

namespace
{

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr int endpoints = 4;
constexpr milliseconds tick{5};
constexpr int ticksPerCommand = 10;
constexpr seconds sampleEvery{5};
constexpr seconds restPatience{90}; // a connection lingers for 60 s at most

// What memory may differ from one rest to a later one: what is under way inside the links' threads
// and the system is not the same.
constexpr qint64 heapRoom = 256;      // KiB
constexpr qint64 residentRoom = 4096; // KiB

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool measuresMemory = false; // that of a sanitizer is its own
#else
constexpr bool measuresMemory = true;
#endif

volatile std::sig_atomic_t isStopped = 0;

// What the C library keeps ready for each thread counts as in use, and fills for hours. It is told
// to keep nothing, by an environment variable that it reads when a program starts.
void measureTheHeapExactly(char** argv)
{
    constexpr const char* name = "GLIBC_TUNABLES";
    if (getenv(name) == nullptr && setenv(name, "glibc.malloc.tcache_count=0", 1) == 0) {
        execv("/proc/self/exe", argv);
    }
}

void stop(int)
{
    isStopped = 1;
}

void showWarnings(QtMsgType type, const QMessageLogContext&, const QString& text)
{
    if (type != QtDebugMsg) {
        std::fprintf(stderr, "\nsoak: %s\n", qPrintable(text));
    }
}

/// What the process holds.
struct Holding {
    qint64 resident = 0; ///< KiB
    qint64 heap = 0;     ///< KiB in use
    int descriptors = 0;
    int threads = 0;

    static Holding now()
    {
        Holding holding;
        holding.resident = processstate::residentKiB();
        if (measuresMemory) {
            const auto info = mallinfo2();
            holding.heap = static_cast<qint64>((info.uordblks + info.hblkhd) / 1024);
        }
        holding.descriptors = processstate::descriptors();
        holding.threads = processstate::threads();
        return holding;
    }
};

// Datagrams that came while the link's buffer in the kernel was full, in this network.
qint64 droppedDatagrams()
{
    qint64 dropped = 0;
    std::ifstream six("/proc/net/snmp6");
    for (std::string name, value; six >> name >> value;) {
        dropped += name == "Udp6RcvbufErrors" ? std::stoll(value) : 0;
    }
    std::ifstream four("/proc/net/snmp");
    std::map<std::string, std::string> columns;
    for (std::string names, values; std::getline(four, names) && std::getline(four, values);) {
        std::istringstream name(names);
        std::istringstream value(values);
        for (std::string key, number; name >> key && value >> number;) {
            if (names.rfind("Udp:", 0) == 0 && key == "RcvbufErrors") {
                dropped += std::stoll(number);
            }
        }
    }
    return dropped;
}

class Soak
{
public:
    Soak(seconds duration, quint64 seed, const char* samplesFile);
    int run();

private:
    void onTick();
    void deliver();
    void rest();
    void sample(bool isRest);
    void progress() const;
    void compare(const Holding& first, const Holding& last);
    bool allPeers(bool (SoakPeer::*state)() const) const;
    Ledger::Counts sum() const;
    void table(double took);

    const seconds duration;
    const seconds restEvery;
    const bool isTerminal = isatty(STDOUT_FILENO) == 1;
    SoakHost host;
    HidTestbed testbed;
    std::vector<std::unique_ptr<DevicePeer>> devices;
    std::vector<std::unique_ptr<OsdPeer>> displays;
    std::vector<SoakPeer*> peers;
    const Clock::time_point start = Clock::now();
    Clock::time_point nextRest = start + restEvery;
    Clock::time_point restLimit = start;
    Clock::time_point nextSample = start;
    Clock::time_point nextProgress = start;
    std::ofstream samples;
    std::vector<Holding> rests;
    Holding most;
    int ticks = 0;
};

Soak::Soak(seconds itsDuration, quint64 seed, const char* samplesFile)
    : duration(itsDuration), restEvery(std::clamp(itsDuration / 6, seconds(2), seconds(60)))
{
    using numberedreplies::Link;
    devices.push_back(std::make_unique<UdpPeers>(host, seed));
    devices.push_back(std::make_unique<SerialLinePeer>(Link::Serial, "serial", host, seed + 1));
    devices.push_back(std::make_unique<SerialLinePeer>(Link::Vela, "vela", host, seed + 2));
    devices.push_back(std::make_unique<UsbPeer>(testbed, host, seed + 3));
    for (int i = 0; i < endpoints; ++i) {
        displays.push_back(std::make_unique<OsdPeer>(i, host, seed + 4 + static_cast<quint64>(i)));
    }
    for (const auto& device : devices) {
        peers.push_back(device.get());
    }
    for (const auto& display : displays) {
        peers.push_back(display.get());
    }
    if (samplesFile != nullptr) {
        samples.open(samplesFile);
        samples << "seconds,resident KiB,heap KiB,descriptors,threads,arrived,at rest\n";
    }
    rests.reserve(4096);
}

bool Soak::allPeers(bool (SoakPeer::*state)() const) const
{
    return std::all_of(peers.begin(), peers.end(),
                       [state](auto* peer) { return (peer->*state)(); });
}

Ledger::Counts Soak::sum() const
{
    Ledger::Counts all;
    for (const SoakPeer* peer : peers) {
        const auto counts = peer->ledger.counts();
        all.intact += counts.intact;
        all.arrived += counts.arrived;
        all.never += counts.never;
        all.given += counts.given;
    }
    return all;
}

void Soak::onTick()
{
    host.performAll();
    deliver();
    if (++ticks % ticksPerCommand == 0) {
        for (SoakPeer* peer : peers) {
            peer->sendCommand();
        }
    }
    const auto now = Clock::now();
    if (isStopped != 0) {
        host.isOver = true;
    }
    if (host.isOver) {
        host.restWanted = false;
    } else if (host.restWanted) {
        rest();
    } else if (now > nextRest || now > start + duration) {
        host.restWanted = true;
    }
    if (now > nextSample) {
        nextSample = now + sampleEvery;
        sample(false);
    }
    if (now > nextProgress) {
        nextProgress = now + (isTerminal ? seconds(1) : seconds(60));
        progress();
    }
    if (allPeers(&SoakPeer::isDone)) {
        QCoreApplication::quit();
    }
}

void Soak::deliver()
{
    std::deque<model_Protocoldata> replies;
    {
        const std::lock_guard lock(biz_CMDSWork::receiveHexCmdlock);
        replies.swap(biz_CMDSWork::receivequeueHexCmd);
    }
    for (const model_Protocoldata& reply : replies) {
        const auto index = static_cast<std::size_t>(reply.ADDR) - 1; // 0 becomes too large
        if (index < devices.size()) {
            devices[index]->take(reply);
        } else {
            host.fail(QStringLiteral("a reply that no device has sent, ADDR %1").arg(reply.ADDR));
        }
    }
    std::deque<model_OsdParam> acknowledgements;
    {
        const std::lock_guard lock(biz_Osd_CMDSWork::receiveOsdlock);
        acknowledgements.swap(biz_Osd_CMDSWork::receivequeueOsd);
    }
    for (const model_OsdParam& acknowledgement : acknowledgements) {
        const auto from = std::find_if(displays.begin(), displays.end(), [&](const auto& display) {
            return display->address() == acknowledgement.strIP;
        });
        if (from != displays.end()) {
            (*from)->take(acknowledgement);
        } else {
            host.fail(QStringLiteral("an acknowledgement of nobody's"));
        }
    }
}

// Nothing is under way: what is held now has to be held at every rest, the last of which ends the
// run. Threads and connections that are on their way out are waited for.
void Soak::rest()
{
    const auto now = Clock::now();
    if (!allPeers(&SoakPeer::isResting)) {
        restLimit = now + restPatience;
        return;
    }
    Holding holding = Holding::now();
    const Holding first = rests.empty() ? holding : rests.front();
    const bool isMore = holding.threads > first.threads || holding.descriptors > first.descriptors;
    if (isMore && now < restLimit) {
        return;
    }
    if (isMore) {
        host.fail(QStringLiteral("at rest: %1 threads and %2 descriptors, %3 and %4 at the first "
                                 "rest")
                      .arg(holding.threads)
                      .arg(holding.descriptors)
                      .arg(first.threads)
                      .arg(first.descriptors));
    }
    malloc_trim(0);
    holding.resident = processstate::residentKiB();
    rests.push_back(holding);
    sample(true);
    nextRest = now + restEvery;
    host.restWanted = false;
    if (now > start + duration) {
        host.isOver = true;
    }
}

void Soak::sample(bool isRest)
{
    const Holding holding = Holding::now();
    most.resident = qMax(most.resident, holding.resident);
    most.heap = qMax(most.heap, holding.heap);
    most.descriptors = qMax(most.descriptors, holding.descriptors);
    most.threads = qMax(most.threads, holding.threads);
    if (samples.is_open()) {
        const std::chrono::duration<double> at = Clock::now() - start;
        samples << at.count() << ',' << holding.resident << ',' << holding.heap << ','
                << holding.descriptors << ',' << holding.threads << ',' << sum().arrived << ','
                << isRest << std::endl;
    }
}

void Soak::progress() const
{
    const auto took = std::chrono::duration_cast<seconds>(Clock::now() - start);
    const auto counts = sum();
    std::printf("%ssoak: %lld of %lld s, %lld replies arrived, %lld damaged or lost on purpose, "
                "%ld KiB%s",
                isTerminal ? "\r\033[K" : "", static_cast<long long>(took.count()),
                static_cast<long long>(duration.count()), counts.arrived, counts.never,
                processstate::residentKiB(), isTerminal ? "" : "\n");
    std::fflush(stdout);
}

void Soak::compare(const Holding& first, const Holding& last)
{
    if (measuresMemory && last.heap > first.heap + heapRoom) {
        host.fail(
            QStringLiteral("the heap has grown from %1 to %2 KiB").arg(first.heap).arg(last.heap));
    }
    if (measuresMemory && last.resident > first.resident + residentRoom) {
        host.fail(QStringLiteral("resident memory has grown from %1 to %2 KiB")
                      .arg(first.resident)
                      .arg(last.resident));
    }
}

void Soak::table(double took)
{
    std::printf("%s%-8s %9s %9s %9s %9s %9s %9s\n", isTerminal ? "\r\033[K" : "", "link", "intact",
                "arrived", "given up", "not to", "commands", "restarts");
    std::map<std::string, qint64> faults;
    for (const SoakPeer* peer : peers) {
        const auto counts = peer->ledger.counts();
        std::printf("%-8s %9lld %9lld %9lld %9lld %9lld %9lld\n", qPrintable(peer->name),
                    counts.intact, counts.arrived, counts.given, counts.never, peer->commands(),
                    peer->restarts());
        for (const auto& action : peer->faults()) {
            faults[action.name] += action.count;
        }
    }
    std::printf("faults:");
    for (const auto& [name, count] : faults) {
        std::printf(" %s %lld%s", name.c_str(), count, name == faults.rbegin()->first ? "\n" : ",");
    }
    std::printf("datagrams that the kernel dropped: %lld\n", droppedDatagrams());
    const auto row = [](const char* name, const Holding& holding) {
        std::printf("%-16s %9lld KiB resident, %7lld KiB heap, %4d descriptors, %3d threads\n",
                    name, holding.resident, holding.heap, holding.descriptors, holding.threads);
    };
    if (!rests.empty()) {
        row("at rest, first", rests.front());
        row("warmed up", rests[rests.size() / 10]);
        row("at rest, last", rests.back());
    }
    row("at most", most);
    std::printf("%.0f s, %.0f s of processor time\n", took, processstate::cpuSeconds());
}

int Soak::run()
{
    CoreFactory::createOsdCoreObj(ConnOsdTcp);
    QTimer timer;
    timer.callOnTimeout([this] { onTick(); });
    timer.start(tick);
    for (SoakPeer* peer : peers) {
        peer->start();
    }
    QCoreApplication::exec();
    for (SoakPeer* peer : peers) {
        peer->join();
    }
    deliver(); // nothing more is to come
    delete std::exchange(CoreFactory::iOsdCore, nullptr);
    const std::chrono::duration<double> took = Clock::now() - start;
    if (!host.hasFailed() && !rests.empty()) {
        compare(rests[rests.size() / 10], rests.back());
    }
    table(took.count());
    if (host.hasFailed()) {
        std::printf("soak: FAILED: %s\n", qPrintable(host.failure()));
        return 1;
    }
    std::printf("soak: %s\n", isStopped != 0 ? "stopped; until then every reply arrived once"
                                             : "passed: every reply arrived once");
    return isStopped != 0 ? 130 : 0;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 3) {
        std::fprintf(stderr, "soak SECONDS SEED [SAMPLES.csv]\n");
        return 2;
    }
    measureTheHeapExactly(argv);
    struct sigaction onSignal {
    };
    onSignal.sa_handler = stop;
    sigaction(SIGINT, &onSignal, nullptr);
    sigaction(SIGTERM, &onSignal, nullptr);
    if (!netns::isolate()) {
        std::fprintf(stderr,
                     "no network namespace of its own: the soak shares the machine's ports\n");
    }
    const QCoreApplication application(argc, argv);
    // Qt 6 looks for the system's proxies in a thread of its own.
    QNetworkProxy::setApplicationProxy(QNetworkProxy(QNetworkProxy::NoProxy));
    qInstallMessageHandler(showWarnings);
    const QTemporaryDir logDirectory;
    Utility_Manage::setLogFile(logDirectory.filePath(QStringLiteral("soak.log")), qint64{1} << 20,
                               1);
    std::printf("soak: %s s, seed %s\n", argv[1], argv[2]);
    std::fflush(stdout);
    Soak soak(seconds(std::atoi(argv[1])), std::strtoull(argv[2], nullptr, 10),
              argc > 3 ? argv[3] : nullptr);
    return soak.run();
}
