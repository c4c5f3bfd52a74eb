// SPDX-License-Identifier: MIT
// A storm over one link, beside all the others at work. Run by scripts/storm.
#include "stormlinks.h"

#include "biz_cmdswork.h"
#include "netns.h"
#include "processstate.h"
#include "shortage.h"
#include "utility_manage.h"

#include <QCommandLineParser>
#include <QEventLoop>
#include <QLoggingCategory>
#include <QTimer>

#include <array>
#include <cstdio>
#include <deque>
#include <functional>

#include <malloc.h>

namespace
{

using std::chrono::milliseconds;
using std::chrono::seconds;
using Clock = std::chrono::steady_clock;

constexpr int skipped = 77;
constexpr int senderCount = 3;
constexpr seconds peace{120};               // for a reply, and for all to come to rest
constexpr std::size_t heapSlack = 1U << 20; // what the C library keeps for its threads

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool countsHeap = false;
#else
constexpr bool countsHeap = true;
#endif

struct Rest {
    int threads = processstate::threads();
    int descriptors = processstate::descriptors();
    std::size_t heap = countsHeap ? mallinfo2().uordblks : 0;
};

struct Options {
    QString link;
    seconds duration{0};
    unsigned seed = 0;
    int pauseMs = 0; ///< between two steps, at most
};

/// Sends on a thread of its own, or has the owner send.
class Sender
{
public:
    Sender(StormLink& to, std::atomic<int>& owners, Watchdog::Mark& watched, unsigned seed,
           int pause)
        : link(to), forOwner(owners), mark(watched), random(seed), pauseMs(pause),
          thread([this] { run(); })
    {
    }
    ~Sender()
    {
        goesOn = false;
        thread.join();
    }
    Sender(const Sender&) = delete;
    Sender& operator=(const Sender&) = delete;

private:
    void run()
    {
        mark.begin();
        while (goesOn) {
            mark.now("send");
            if (link.sendsFromAnyThread()) {
                link.send(random);
            } else {
                ++forOwner;
            }
            mark.now("pause");
            std::this_thread::sleep_for(milliseconds(below(random, 3 * pauseMs)));
        }
        mark.end();
    }

    StormLink& link;
    std::atomic<int>& forOwner;
    Watchdog::Mark& mark;
    Random random;
    const int pauseMs;
    std::atomic<bool> goesOn{true};
    std::thread thread;
};

class Storm
{
public:
    Storm(const Options& wanted, Watchdog& dog)
        : options(wanted), watchdog(dog), mark(dog.add("owner")), random(wanted.seed)
    {
        for (const QString& name : stormLinkNames()) {
            links.push_back(makeStormLink(name));
            links.back()->name = name;
            if (name == options.link) {
                stormed = links.back().get();
            }
        }
        for (int i = 0; i < senderCount; ++i) {
            senderMarks.push_back(&watchdog.add("sender " + std::to_string(i)));
        }
    }

    bool run()
    {
        mark.begin();
        std::vector<Peer*> peers;
        for (const auto& link : links) {
            peers.push_back(link->peer.get());
        }
        const PeerThread served(peers);
        StormHost host(watchdog, options.seed);
        bool clean = round(milliseconds(200));   // what is made once is made now
        std::this_thread::sleep_for(seconds(2)); // threads that were left behind end
        const Rest before;
        const auto end = Clock::now() + options.duration;
        while (clean && Clock::now() < end) {
            const milliseconds left = std::chrono::duration_cast<milliseconds>(end - Clock::now());
            clean = round(qMin(left, milliseconds(10'000))) && isAtRest(before);
        }
        mark.end();
        const double cpu = processstate::cpuSeconds();
        std::printf(
            "storm: %s: %ld steps, %ld links made, %ld misdeeds of the device, %ld shortages of "
            "threads or descriptors, %ld replies, %ld lines, %.1f s of processor time: %s\n",
            qPrintable(options.link), steps, made, misdeeds, shortage.count(), StormHost::replies(),
            StormHost::lines(), cpu, clean ? "clean" : "FAILED");
        return clean;
    }

private:
    // From nothing to nothing; every link answers in between.
    bool round(milliseconds duration)
    {
        for (const auto& link : links) {
            mark.now("make");
            link->peerIsGood(0);
            link->make(link.get() == stormed); // the factory keeps one
            if (!link->open()) {
                std::fprintf(stderr, "storm: %s: not opened\n", qPrintable(link->name));
                return false;
            }
            ++made;
        }
        StormHost::beRough(true);
        const auto end = Clock::now() + duration;
        {
            std::deque<Sender> senders;
            for (Watchdog::Mark* const sender : senderMarks) {
                senders.emplace_back(*stormed, forOwner, *sender, static_cast<unsigned>(random()),
                                     options.pauseMs);
            }
            while (Clock::now() < end) {
                step();
                sendOnOthers();
                pump(milliseconds(below(random, options.pauseMs)));
            }
        }
        StormHost::beRough(false);
        shortage.end();
        const bool answers = allAnswer();
        for (const auto& link : links) {
            mark.now("destroy");
            link->destroy();
            link->peer->die(false);
            link->forgetDevices();
        }
        mark.now("rest");
        return answers;
    }

    void step()
    {
        ++steps;
        mark.now("run short");
        shortage.pass(random);
        const int what = below(random, 100);
        if (what < 40) {
            mark.now("send");
            stormed->send(random);
        } else if (what < 50) {
            mark.now("let the device misbehave");
            if (!shortage.isOn() || stormed->peer->diesWithoutDescriptors()) {
                ++misdeeds;
                stormed->peerDoes(random);
            }
        } else if (what < 65) {
            mark.now("let the device come back");
            if (!shortage.isOn()) { // it is of this process, too
                (void)stormed->peer->comeBack();
            }
        } else if (what < 75) {
            mark.now("open");
            (void)stormed->open();
        } else if (what < 80) {
            mark.now("close");
            stormed->close();
        } else if (what < 86) {
            mark.now("re-initialise");
            stormed->reinitialise(random);
        } else if (what < 94) {
            mark.now("set");
            stormed->set(random);
        } else {
            mark.now("make");
            ++made;
            stormed->make(below(random, 2) == 0);
        }
        for (int due = forOwner.exchange(0); due > 0; --due) {
            mark.now("send");
            stormed->send(random);
        }
    }

    void sendOnOthers()
    {
        mark.now("send on another link");
        const auto& other = links.at(static_cast<std::size_t>(below(random, int(links.size()))));
        if (other.get() != stormed) {
            other->send(random);
        }
    }

    void pump(milliseconds duration)
    {
        mark.now("event loop");
        QEventLoop loop;
        QTimer::singleShot(duration, &loop, &QEventLoop::quit);
        loop.exec();
    }

    bool allAnswer()
    {
        StormHost::forgetReplies();
        bool all = true;
        for (const auto& link : links) {
            mark.now("set right");
            const int tag = 2 + below(random, 100);
            link->peerIsGood(tag);
            if (link.get() == stormed && !link->open()) {
                std::fprintf(stderr, "storm: %s: not opened\n", qPrintable(link->name));
                all = false;
                continue;
            }
            const auto end = Clock::now() + peace;
            while (!StormHost::hasCome(link->link, tag) && Clock::now() < end) {
                mark.now("send");
                link->send(random);
                pump(milliseconds(50));
            }
            if (!StormHost::hasCome(link->link, tag)) {
                std::fprintf(stderr, "storm: %s answers no more behind the storm\n",
                             qPrintable(link->name));
                all = false;
            }
        }
        return all;
    }

    bool isAtRest(const Rest& before) const
    {
        mark.now("rest");
        const auto end = Clock::now() + peace / 2;
        Rest now;
        for (; Clock::now() < end; now = Rest()) {
            if (now.threads <= before.threads && now.descriptors <= before.descriptors &&
                now.heap <= before.heap + heapSlack) {
                return true;
            }
            std::this_thread::sleep_for(milliseconds(50));
        }
        std::fprintf(stderr,
                     "storm: not at rest: %d threads, before %d; %d descriptors, before %d; %zu "
                     "bytes of heap, before %zu\n",
                     now.threads, before.threads, now.descriptors, before.descriptors, now.heap,
                     before.heap);
        return false;
    }

    const Options options;
    Watchdog& watchdog;
    Watchdog::Mark& mark;
    Random random;
    std::vector<std::unique_ptr<StormLink>> links;
    StormLink* stormed = nullptr;
    std::vector<Watchdog::Mark*> senderMarks;
    std::atomic<int> forOwner{0}; // sends that the owner's thread is to do
    Shortage shortage;
    long steps = 0;
    long made = 0;
    long misdeeds = 0;
};

// What the watchdog says of a thread that is stuck, for its test.
[[noreturn]] void beStuck(Watchdog& watchdog)
{
    Watchdog::Mark& mark = watchdog.add("stuck one");
    mark.begin();
    mark.now("wait for ever");
    for (;;) {
        std::this_thread::sleep_for(seconds(1));
    }
}

} // namespace

int main(int argc, char** argv)
{
    if (!netns::isolate()) {
        std::fprintf(stderr, "storm: the right to make a network namespace is missing\n");
        return skipped;
    }
    std::thread([] {}).join(); // a sanitizer's own thread starts with the first one
    const QCoreApplication application(argc, argv);
    QLoggingCategory::setFilterRules(QStringLiteral("*=false"));
    QCommandLineParser parser;
    parser.addPositionalArgument("link", stormLinkNames().join(", ") + ", or stuck");
    parser.addPositionalArgument("seconds", "how long");
    parser.addOption({"seed", "of the sequence; a random one otherwise", "number"});
    parser.addOption({"pause", "between two steps at most, in ms", "ms", "20"});
    parser.addHelpOption();
    parser.process(application);
    Options options;
    const QStringList arguments = parser.positionalArguments();
    options.link = arguments.value(0);
    options.duration = seconds(arguments.value(1).toInt());
    options.pauseMs = qMax(1, parser.value("pause").toInt());
    options.seed = parser.isSet("seed") ? parser.value("seed").toUInt() : std::random_device()();
    if (options.link == "stuck") {
        Watchdog watchdog(seconds(1));
        beStuck(watchdog);
    }
    if (!stormLinkNames().contains(options.link) || options.duration.count() <= 0) {
        std::fprintf(stderr, "%s", qPrintable(parser.helpText()));
        return 2;
    }
    std::printf("storm: %s for %d s, seed %u\n", qPrintable(options.link),
                static_cast<int>(options.duration.count()), options.seed);
    std::fflush(stdout);
    Watchdog watchdog(peace);
    return Storm(options, watchdog).run() ? 0 : 1;
}
