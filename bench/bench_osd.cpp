// SPDX-License-Identifier: MIT
// The on-screen-display endpoints against the same thing written down step by step.
#include "biz_osd_cmdswork.h"
#include "core_osd_manage.h"
#include "core_osd_tcpsocket.h"
#include "corefactory.h"
#include "literalosdmanage.h"
#include "literalosdsocket.h"
#include "netns.h"
#include "processstate.h"
#include "ratio.h"
#include "tests/osd/osdsimulator.h"

#include <QCoreApplication>
#include <QHostAddress>
#include <QProcess>
#include <QTcpSocket>

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <thread>

#include <unistd.h>

namespace
{

constexpr int wallSize = 100;
constexpr std::array wallSizes{1, 10, 50, wallSize};
constexpr double pollSeconds = 0.003;

QString ipOf(int endpoint)
{
    return QStringLiteral("127.0.1.%1").arg(endpoint + 1);
}

// One endpoint that is reached under every address.
std::unique_ptr<OsdSimulator> endpointForAll()
{
    OsdSimulatorOptions options;
    options.address = QStringLiteral("0.0.0.0");
    options.port = 0;
    options.dataLength = 0;
    auto endpoint = std::make_unique<OsdSimulator>(options);
    if (!endpoint->start()) {
        std::fprintf(stderr, "bench_osd: %s\n", endpoint->error().toLocal8Bit().constData());
        std::exit(1);
    }
    return endpoint;
}

template <class Condition>
void waitFor(Condition&& condition)
{
    while (!condition()) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}

double secondsOf(const std::function<void()>& function)
{
    return ratio::secondsPerCall(function, 1);
}

void frames()
{
    Core_Osd_TcpSocket library(nullptr);
    LiteralOsdManage manager;
    LiteralOsdSocket literal(&manager);
    model_OsdParam record;
    record.strIP = QStringLiteral("127.0.0.1");
    qsizetype size = 0;
    const auto [plain, literalPlain] =
        ratio::inTurns([&] { size += library.produceCmds(record).size(); },
                       [&] { size += literal.produceCmds(record).size(); });
    ratio::printFaster("frame without data", literalPlain, plain, 3);
    record.arryData = QByteArray(64 * 1024, 'd');
    const auto [large, literalLarge] =
        ratio::inTurns([&] { size += library.produceCmds(record).size(); },
                       [&] { size += literal.produceCmds(record).size(); }, 200);
    ratio::printFaster("frame with 64 KiB", literalLarge, large, 3);
    const auto [again, copy] = ratio::inTurns(
        [&] { size += library.produceCmds(record).size(); },
        [&] {
            QByteArray bytes(record.arryData.size() + 8, Qt::Uninitialized);
            std::memcpy(bytes.data() + 6, record.arryData.constData(), std::size_t{64} * 1024);
            size += bytes.size();
        },
        2000);
    ratio::printTimes("frame with 64 KiB, to one allocation and copy", copy, again, 1.5);
    if (size == 0) {
        std::puts("");
    }
}

std::unique_ptr<core_Osd_Manage> sharedManager()
{
    return std::unique_ptr<core_Osd_Manage>(
        qobject_cast<core_Osd_Manage*>(CoreFactory::createOsdCoreObj(ConnOsdTcp)));
}

// What a sender pays for a record that is offered to all endpoints. Ends the process.
[[noreturn]] void reportFanOut()
{
    const auto endpoint = endpointForAll();
    const auto library = sharedManager();
    LiteralOsdManage literal;
    model_OsdParam record;
    record.strIP = QStringLiteral("10.0.0.1"); // taken by none
    int opened = 0;
    for (const int count : wallSizes) {
        for (; opened < count; ++opened) {
            library->openClient(ipOf(opened), endpoint->port());
            literal.openClient(ipOf(opened), endpoint->port());
        }
        waitFor([&] { return endpoint->connected() == qint64{2} * count; });
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        const auto offer = [&record](auto& manager) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5)); // every worker sleeps again
            return secondsOf([&] { manager.sendDatatoDevice(&record); });
        };
        std::vector<double> ours;
        std::vector<double> theirs;
        for (int i = 0; i < 501; ++i) { // in turns
            theirs.push_back(offer(literal));
            ours.push_back(offer(*library));
        }
        const QByteArray what = "one record offered to " + QByteArray::number(count) + " endpoints";
        ratio::printTimes(what.constData(), ratio::percentile(theirs, 0.5),
                          ratio::percentile(ours, 0.5), 1.2);
    }
    std::fflush(stdout);
    _exit(0); // two hundred clients would take their time to close
}

struct Figures {
    std::map<int, int> threads; // by endpoints
    double closingOne = 0;
    double destruction = 0;
};

template <class Manager>
Figures wall(std::unique_ptr<Manager> manager)
{
    const auto endpoint = endpointForAll();
    Figures figures;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    const int threads = processstate::threads();
    int opened = 0;
    for (const int count : wallSizes) {
        for (; opened < count; ++opened) {
            manager->openClient(ipOf(opened), endpoint->port());
        }
        waitFor([&] { return endpoint->connected() == count; });
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        figures.threads[count] = processstate::threads() - threads + 1;
    }
    std::vector<double> closings;
    for (int i = 0; i < 5; ++i) {
        closings.push_back(secondsOf([&] { manager->closeClient(ipOf(i)); }));
        manager->openClient(ipOf(i), endpoint->port());
        waitFor([&] { return endpoint->connected() == wallSize; });
    }
    figures.closingOne = ratio::percentile(closings, 0.5);
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    figures.destruction = secondsOf([&] { manager.reset(); });
    return figures;
}

void walls()
{
    const Figures library = wall(sharedManager());
    CoreFactory::iOsdCore = nullptr;
    const Figures literal = wall(std::make_unique<LiteralOsdManage>());
    for (const int count : wallSizes) {
        ratio::record("threads of silent endpoints", count, library.threads.at(count),
                      literal.threads.at(count), "threads");
    }
    std::printf("%d silent endpoints: %d threads (goal: %d or fewer), baseline %d\n", wallSize,
                library.threads.at(wallSize), 2 * wallSize + 1, literal.threads.at(wallSize));
    std::printf("closing one endpoint: %.1f ms, baseline %.1f ms (goal: 100 and the hang-up)\n",
                library.closingOne * 1e3, literal.closingOne * 1e3);
    std::printf("destroying a manager with %d endpoints: %.2f s, baseline %.2f s (goal: under "
                "12)\n",
                wallSize, library.destruction, literal.destruction);
}

// The share of a core that the process takes while its endpoints are silent. Ends the process.
template <class Manager>
[[noreturn]] void reportIdle(Manager& manager)
{
    const auto endpoint = endpointForAll();
    for (int i = 0; i < wallSize; ++i) {
        manager.openClient(ipOf(i), endpoint->port());
    }
    waitFor([&] { return endpoint->connected() == wallSize; });
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    const double before = processstate::cpuSeconds();
    const double idle =
        secondsOf([] { std::this_thread::sleep_for(std::chrono::milliseconds(2000)); });
    std::printf("%f\n", (processstate::cpuSeconds() - before) / idle);
    std::fflush(stdout);
    _exit(0); // a hundred clients would take their time to close
}

constexpr char idleLibrary[] = "--idle-library";
constexpr char idleLiteral[] = "--idle-literal";
constexpr char fanOut[] = "--fan-out";

double idleShare(const char* argument)
{
    QProcess process;
    process.start(QCoreApplication::applicationFilePath(), {QString::fromLatin1(argument)});
    process.waitForFinished(-1);
    return process.readAllStandardOutput().trimmed().toDouble();
}

void idling()
{
    std::vector<double> library;
    std::vector<double> literal;
    for (int i = 0; i < 5; ++i) { // in turns
        library.push_back(idleShare(idleLibrary));
        literal.push_back(idleShare(idleLiteral));
    }
    const double share = ratio::percentile(library, 0.5);
    const double baseline = ratio::percentile(literal, 0.5);
    ratio::record("silent endpoints", wallSize, share * 100, baseline * 100, "% of a core");
    std::printf("%d silent endpoints: %.1f %% of a core, baseline %.1f %%: %.2f times its share "
                "(goal: 1.0 or less)\n",
                wallSize, share * 100, baseline * 100, share / baseline);
}

std::size_t acknowledged()
{
    const std::lock_guard lock(biz_Osd_CMDSWork::receiveOsdlock);
    return biz_Osd_CMDSWork::receivequeueOsd.size();
}

void roundTrips()
{
    constexpr int rounds = 1001;
    const auto endpoint = endpointForAll();
    ICoreOsdBase* const manager = CoreFactory::createOsdCoreObj(ConnOsdTcp);
    manager->openClient(ipOf(0), endpoint->port());
    QTcpSocket bare;
    bare.connectToHost(QHostAddress(QHostAddress::LocalHost), endpoint->port());
    bare.waitForConnected();
    waitFor([&] { return endpoint->connected() == 2; });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    model_OsdParam record;
    record.strIP = ipOf(0);
    const QByteArray frame(8, '\0');
    std::vector<double> library;
    std::vector<double> echo;
    for (int i = 0; i < rounds; ++i) { // in turns
        const std::size_t before = acknowledged();
        library.push_back(secondsOf([&] {
            manager->sendDatatoDevice(&record);
            while (acknowledged() == before) {
                std::this_thread::yield();
            }
        }));
        echo.push_back(secondsOf([&] {
            bare.write(frame);
            while (bare.bytesAvailable() < 3) {
                bare.waitForReadyRead(-1);
            }
        }));
        bare.readAll();
    }
    delete manager;
    CoreFactory::iOsdCore = nullptr;
    const double median = ratio::percentile(library, 0.5);
    const double bound = pollSeconds + ratio::percentile(echo, 0.5);
    ratio::record("OSD round trip, to the pause and a bare echo", 0, median * 1e6, bound * 1e6,
                  "us");
    std::printf("command to acknowledgement, median: %.3f ms, the pause and a bare echo %.3f ms "
                "(goal: 0.3 more or less)\n",
                median * 1e3, bound * 1e3);
}

} // namespace

int main(int argc, char** argv)
{
    if (!netns::isolate()) {
        std::fprintf(stderr, "no network namespace of its own: connections share its ports\n");
    }
    const QCoreApplication application(argc, argv);
    if (argc == 2 && std::strcmp(argv[1], idleLibrary) == 0) {
        reportIdle(*CoreFactory::createOsdCoreObj(ConnOsdTcp));
    }
    if (argc == 2 && std::strcmp(argv[1], idleLiteral) == 0) {
        LiteralOsdManage manager;
        reportIdle(manager);
    }
    if (argc == 2 && std::strcmp(argv[1], fanOut) == 0) {
        reportFanOut();
    }
    frames();
    roundTrips();
    std::fflush(stdout);
    QProcess::execute(QCoreApplication::applicationFilePath(), {QString::fromLatin1(fanOut)});
    idling();
    walls();
    return 0;
}
