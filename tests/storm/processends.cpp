// SPDX-License-Identifier: MIT
// Ends processes: every way, with every link in every state. Run by scripts/storm exit.
#include "emulatedhid.h"
#include "netns.h"

#include <QCommandLineParser>
#include <QCoreApplication>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <functional>
#include <map>
#include <mutex>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

using Clock = std::chrono::steady_clock;

constexpr int skipped = 77;
constexpr int notReady = 9; // the link could not be brought into its state
constexpr int keptReplies = 5;
constexpr long long waitForPending = 200'000'000; // ns; a busy machine may need more
constexpr std::chrono::seconds patience{60};

const std::vector<std::string> links{"udp", "serial", "vela", "usb", "osd"};
const std::vector<std::string> ways{"return", "delete", "slot", "log",
                                    "thread", "quick",  "fork", "dlclose"};
const std::vector<std::string> states{"closed", "idle", "busy", "block", "kept",
                                      "held",   "flag", "lost", "log",   "late"};

struct Case {
    std::string link;
    std::string way;
    std::string state;
};

bool mayBe(const Case& one)
{
    const bool isDisplay = one.link == "osd";
    if (one.state == "block") {
        return !isDisplay && one.link != "udp";
    }
    if (one.state == "flag") {
#ifdef __SANITIZE_THREAD__
        if (one.link == "vela") { // its parser keeps the queue's lock for ever, which is read then
            return false;
        }
#endif
        return !isDisplay && one.way != "delete"; // a display has none; nobody lets go of it
    }
    if (one.state == "closed" || one.state == "lost") {
        return one.way != "log" || one.link == "udp"; // nothing leads into the log
    }
    // The main thread would wait for itself.
    return !(one.way == "delete" && (one.state == "held" || one.state == "late"));
}

long long nanoseconds(Clock::time_point time)
{
    return std::chrono::nanoseconds(time.time_since_epoch()).count();
}

std::array<int, 2> makePipe()
{
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        std::perror("pipe");
        std::exit(1);
    }
    return ends;
}

struct Run {
    int status = -1;
    bool hung = false;
    std::string report;
    double seconds = 0; ///< from the begin of the end to the end
};

/// What one process says and how it ends.
Run runOnce(const Case& one, unsigned seed, int usbFeeder)
{
    const auto ends = makePipe();
    const std::string program = one.way == "dlclose" ? END_LOADED : END_LINKED;
    const std::string seedText = std::to_string(seed);
    const pid_t child = fork();
    if (child == 0) {
        dup2(ends[1], 3);
        if (usbFeeder >= 0) {
            dup2(usbFeeder, 4);
        }
        execl(program.c_str(), program.c_str(), one.link.c_str(), one.way.c_str(),
              one.state.c_str(), seedText.c_str(), nullptr);
        _exit(127);
    }
    close(ends[1]);
    Run run;
    const auto limit = Clock::now() + patience;
    std::array<char, 4096> bytes{};
    for (ssize_t size = 1; size > 0;) {
        pollfd from{ends[0], POLLIN, 0};
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(limit - Clock::now());
        if (poll(&from, 1, std::max(0, static_cast<int>(left.count()))) <= 0) {
            run.hung = true;
            kill(child, SIGKILL);
        }
        size = read(ends[0], bytes.data(), bytes.size());
        run.report.append(bytes.data(), static_cast<std::size_t>(std::max<ssize_t>(0, size)));
    }
    (void)waitpid(child, &run.status, 0);
    const auto over = nanoseconds(Clock::now());
    close(ends[0]);
    const auto begin = run.report.find("end ");
    if (begin != std::string::npos) {
        run.seconds = static_cast<double>(over - std::atoll(run.report.c_str() + begin + 4)) * 1e-9;
    }
    return run;
}

/// What is wrong with a run; empty if nothing is.
std::string wrong(const Case& one, const Run& run)
{
    if (run.hung) {
        return "does not end";
    }
    if (run.status != 0) {
        return WIFSIGNALED(run.status) ? "signal " + std::to_string(WTERMSIG(run.status))
                                       : "code " + std::to_string(WEXITSTATUS(run.status));
    }
    int gone = 0;
    long long begin = 0;
    std::istringstream lines(run.report);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string word;
        long long time = 0;
        words >> word >> time;
        if (word == "touched") {
            return line;
        }
        if (word == "end") {
            begin = time;
        }
        if (word != "gone") {
            continue;
        }
        ++gone;
        std::vector<int> tags;
        for (int tag = 0; words >> tag;) {
            if (tag != 0x7f) {
                tags.push_back(tag);
            }
        }
        const bool wasWaitedFor = time - begin < waitForPending;
        const bool isDisplay = one.link == "osd";
        if (isDisplay) { // acknowledgements come on threads of their own
            std::sort(tags.begin(), tags.end());
        }
        if (std::adjacent_find(tags.begin(), tags.end(), std::greater_equal<>()) != tags.end()) {
            return "replies doubled or out of order: " + line;
        }
        if (!tags.empty() && tags.back() != static_cast<int>(tags.size()) &&
            (wasWaitedFor || !isDisplay)) {
            return "replies lost: " + line;
        }
        // The parser of the second serial line may not have begun with them.
        const std::size_t due = one.link == "vela" ? 0 : keptReplies;
        const bool isParent = one.way != "fork" || gone == 2;
        if (one.state == "kept" && isParent && wasWaitedFor && tags.size() < due) {
            return "replies that the host kept waiting did not come: " + line;
        }
    }
    const int expected = one.way == "quick" ? 0 : one.way == "fork" ? 2 : 1;
    return gone == expected ? "" : "static objects went " + std::to_string(gone) + " times";
}

class Ends
{
public:
    Ends(unsigned of, int count) : seed(of), runs(count)
    {
        for (const auto& way : ways) {
            for (const auto& state : states) {
                for (const auto& link : links) {
                    if (mayBe({link, way, state})) {
                        cases[link].push_back({link, way, state});
                    }
                }
            }
        }
    }

    /// Keeps those cases whose link, way and state are these, where they are not empty.
    void keep(const std::string& link, const std::string& way, const std::string& state)
    {
        for (auto& [name, all] : cases) {
            all.erase(std::remove_if(all.begin(), all.end(),
                                     [&](const Case& one) {
                                         return (!link.empty() && one.link != link) ||
                                                (!way.empty() && one.way != way) ||
                                                (!state.empty() && one.state != state);
                                     }),
                      all.end());
        }
    }

    bool run()
    {
        std::thread feeding([this] {
            std::array<char, 64> bytes{};
            for (ssize_t size = 0; (size = read(feeder[0], bytes.data(), bytes.size())) > 0;) {
                (void)device.sendPadded(QByteArray(bytes.data(), static_cast<int>(size)));
            }
        });
        std::vector<std::thread> threads;
        for (const auto& [link, all] : cases) {
            if (!all.empty()) {
                threads.emplace_back([this, &all = all] { runAll(all); });
            }
        }
        for (std::thread& thread : threads) {
            thread.join();
        }
        close(feeder[1]);
        feeding.join();
        std::printf("ends: %d processes, %d failed, %d begun again, seed %u\n", done.load(),
                    failed.load(), repeated.load(), seed);
        for (auto& [way, times] : seconds) {
            std::sort(times.begin(), times.end());
            std::printf("ends: %-8s %5zu took %.3f s in the middle, %.3f s at most\n", way.c_str(),
                        times.size(), times[times.size() / 2], times.back());
        }
        return failed == 0 && done > 0;
    }

private:
    // Of one link: the ports and the emulated device are for one process at a time.
    void runAll(const std::vector<Case>& all)
    {
        std::mt19937 random(seed);
        auto order = all;
        for (std::size_t i = 0; started++ < runs; ++i) {
            if (i % order.size() == 0) {
                std::shuffle(order.begin(), order.end(), random);
            }
            check(order[i % order.size()], static_cast<unsigned>(random()));
        }
    }

    void check(const Case& one, unsigned runSeed)
    {
        Run result = runOnce(one, runSeed, feeder[1]);
        // A terminal is given anew a moment before the lock file of its last user has gone.
        for (int i = 0; i < 5 && WIFEXITED(result.status) && WEXITSTATUS(result.status) == notReady;
             ++i) {
            ++repeated;
            result = runOnce(one, runSeed, feeder[1]);
        }
        const std::string problem = wrong(one, result);
        ++done;
        const std::lock_guard guard(lock);
        seconds[one.way].push_back(result.seconds);
        if (!problem.empty()) {
            ++failed;
            std::printf("ends: %s %s %s %u: %s\n%s", one.link.c_str(), one.way.c_str(),
                        one.state.c_str(), runSeed, problem.c_str(), result.report.c_str());
            std::fflush(stdout);
        }
    }

    const unsigned seed;
    const int runs;
    HidTestbed testbed;
    EmulatedHid device{testbed, 0x04B4, 0x2000};
    const std::array<int, 2> feeder = makePipe();   // what the process wants the device to send
    std::map<std::string, std::vector<Case>> cases; // by link
    std::atomic<int> started{0};
    std::atomic<int> done{0};
    std::atomic<int> failed{0};
    std::atomic<int> repeated{0};
    std::mutex lock;
    std::map<std::string, std::vector<double>> seconds; // by way
};

} // namespace

int main(int argc, char** argv)
{
    if (!netns::isolate()) {
        std::fprintf(stderr, "ends: the right to make a network namespace is missing\n");
        return skipped;
    }
    qputenv("ASAN_OPTIONS", "detect_leaks=0");        // that would read the pages that are closed
    qputenv("TSAN_OPTIONS", "report_thread_leaks=0"); // threads that still run are the point
    const QCoreApplication application(argc, argv);
    QCommandLineParser parser;
    parser.addPositionalArgument("runs", "how many processes");
    parser.addOption({"seed", "of the order; a random one otherwise", "number"});
    parser.addOption({"link", "only this one", "name"});
    parser.addOption({"way", "only this one", "name"});
    parser.addOption({"state", "only this one", "name"});
    parser.addHelpOption();
    parser.process(application);
    const int runs = parser.positionalArguments().value(0).toInt();
    if (runs <= 0) {
        std::fprintf(stderr, "%s", qPrintable(parser.helpText()));
        return 2;
    }
    Ends ends(parser.isSet("seed") ? parser.value("seed").toUInt() : std::random_device()(), runs);
    ends.keep(parser.value("link").toStdString(), parser.value("way").toStdString(),
              parser.value("state").toStdString());
    return ends.run() ? 0 : 1;
}
