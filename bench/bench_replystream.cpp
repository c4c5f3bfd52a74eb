// SPDX-License-Identifier: MIT
// The parser's work without its pauses; then a whole serial line on a pseudo-terminal, against a
// bare port and against doing nothing.
#include "binaryreplyformat.h"
#include "biz_cmdswork.h"
#include "core_serialport.h"
#include "processstate.h"
#include "ratio.h"
#include "replybytes.h"
#include "replystreamparser.h"
#include "textreplyformat.h"
#include "utility_manage.h"

#include <QCoreApplication>
#include <QLoggingCategory>
#include <QTemporaryDir>

#include <atomic>
#include <map>
#include <memory>
#include <random>
#include <thread>

#include <fcntl.h>
#include <malloc.h>
#include <poll.h>
#include <termios.h>
#include <unistd.h>

namespace
{

using Clock = std::chrono::steady_clock;

constexpr int window = 1024;
constexpr int longBacklog = 16 * 1024 * 1024;
constexpr double goalMicroseconds = 1; // beside a pause of 3000 between two replies
constexpr TextReplyFormat text{TextReplyValues()};
constexpr BinaryReplyFormat binary;

double elapsed(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

std::size_t queued()
{
    const std::lock_guard lock(biz_CMDSWork::receiveHexCmdlock);
    return biz_CMDSWork::receivequeueHexCmd.size();
}

void waitAndEmptyQueue(std::size_t expected)
{
    while (queued() < expected) {
        std::this_thread::yield();
    }
    const std::lock_guard lock(biz_CMDSWork::receiveHexCmdlock);
    biz_CMDSWork::receivequeueHexCmd.clear();
}

// Seconds per reply, for each batch while a backlog of these replies is worked off; the host
// empties its queue after each, which is not counted.
void workOff(ReplyStreamParser& parser, const QByteArray& reply, int backlog,
             std::vector<double>& results)
{
    constexpr int batch = 25;
    const auto replies = static_cast<int>(backlog / reply.size());
    parser.appendBuffData(reply.repeated(replies));
    for (int done = 0; done < replies; done += batch) {
        const int passes = std::min(batch, replies - done);
        const auto start = Clock::now();
        for (int i = 0; i < passes; ++i) {
            parser.pass();
        }
        results.push_back(elapsed(start) / passes);
        waitAndEmptyQueue(static_cast<std::size_t>(passes));
    }
}

void replies(const char* what, const QByteArray& reply, const ReplyFormat& format)
{
    std::map<int, std::vector<double>> resultsOf; // by backlog
    for (int turn = 0; turn < 3; ++turn) {
        for (const auto& [backlog, rounds] :
             {std::pair(4 * 1024, 200), std::pair(64 * 1024, 30), std::pair(1024 * 1024, 3),
              std::pair(longBacklog, 1)}) {
            ReplyStreamParser parser(format, std::make_shared<ReplyStream>());
            for (int i = 0; i < rounds; ++i) {
                workOff(parser, reply, backlog, resultsOf[backlog]);
            }
        }
    }
    for (auto& [backlog, results] : resultsOf) {
        const double median = ratio::percentile(results, 0.5) * 1e6;
        ratio::record(what, backlog, median, 0, "us");
        std::printf("%-30s %5d KiB backlog %8.2f us a reply (goal: %.1f or less)\n", what,
                    backlog / 1024, median, goalMicroseconds);
    }
}

// Up to a reply that is just arriving, so that giving the memory back is not counted.
double secondsToSkip(ReplyStream& stream, ReplyStreamParser& parser, const QByteArray& noise)
{
    parser.appendBuffData(noise + "<F");
    const auto start = Clock::now();
    for (qsizetype before = -1; stream.received.size() != before;) {
        before = stream.received.size();
        parser.pass();
    }
    const double seconds = elapsed(start);
    stream.received.clear();
    return seconds;
}

// A copy of each window that a pass inspects, and a search of it.
double secondsToSearch(const QByteArray& original)
{
    const QByteArray noise = original + "<F";
    const auto start = Clock::now();
    for (QByteArray::size_type position = 0; position < noise.size();) {
        const QByteArray inspected = noise.mid(position, window);
        const auto mark = inspected.indexOf('<');
        position += mark < 0 ? inspected.size() : mark + 1;
    }
    return elapsed(start);
}

void resynchronise(const char* what, const QByteArray& noise)
{
    const auto stream = std::make_shared<ReplyStream>();
    ReplyStreamParser parser(text, stream);
    std::vector<double> skips;
    std::vector<double> searches;
    std::vector<double> skipsOfOne;
    const QByteArray part = noise.left(noise.size() / 16);
    for (int i = 0; i < 9; ++i) {
        searches.push_back(secondsToSearch(noise));
        skips.push_back(secondsToSkip(*stream, parser, noise));
        skipsOfOne.push_back(secondsToSkip(*stream, parser, part));
    }
    const double skip = ratio::percentile(skips, 0.5);
    ratio::printTimes(what, ratio::percentile(searches, 0.5), skip, 3);
    // Linear, but for the caches.
    ratio::printTimes("    16 MiB to 16 times 1 MiB", 16 * ratio::percentile(skipsOfOne, 0.5), skip,
                      2);
}

// The device's side of a pseudo-terminal: answers every frame with the same reply.
class Echo
{
public:
    Echo() : master(posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC))
    {
        grantpt(master);
        unlockpt(master);
        termios raw{};
        tcgetattr(master, &raw);
        cfmakeraw(&raw);
        tcsetattr(master, TCSANOW, &raw);
        name = QString::fromLocal8Bit(ptsname(master));
    }
    ~Echo()
    {
        stop = true;
        if (thread.joinable()) {
            thread.join();
        }
        close(master);
    }
    Echo(const Echo&) = delete;
    Echo& operator=(const Echo&) = delete;

    void start()
    {
        thread = std::thread([this] { run(); });
    }

    QString name;

private:
    void run() const
    {
        const QByteArray reply = replybytes::text(0x79, 0x0C);
        char buffer[256];
        while (!stop) {
            pollfd ready{master, POLLIN, 0};
            if (poll(&ready, 1, 100) > 0 && read(master, buffer, sizeof buffer) > 0) {
                [[maybe_unused]] const ssize_t written =
                    write(master, reply.constData(), static_cast<std::size_t>(reply.size()));
            }
        }
    }

    int master;
    std::atomic<bool> stop{false};
    std::thread thread;
};

bool open(Core_SerialPort& line, const Echo& echo)
{
    return line.openSerialPort(echo.name, QSerialPort::Baud115200, QSerialPort::OneStop,
                               QSerialPort::NoParity, QSerialPort::NoFlowControl,
                               QSerialPort::Data8);
}

double bareRoundTrip(QSerialPort& port, const QByteArray& frame)
{
    const auto start = Clock::now();
    port.write(frame);
    while (port.bytesAvailable() < frame.size()) {
        QCoreApplication::processEvents(QEventLoop::AllEvents);
    }
    const double seconds = elapsed(start);
    port.readAll();
    return seconds;
}

double lineRoundTrip(Core_SerialPort& line, model_Protocoldata& record)
{
    const auto start = Clock::now();
    line.sendDatatoDevice(&record);
    while (queued() == 0) {
        QCoreApplication::processEvents(QEventLoop::AllEvents);
    }
    const double seconds = elapsed(start);
    waitAndEmptyQueue(0);
    return seconds;
}

void roundTrips()
{
    constexpr int rounds = 1000;
    std::minstd_rand random(1);
    std::uniform_int_distribution<int> phase(0, 3000);
    std::vector<double> bare;
    std::vector<double> whole;
    Echo bareEcho;
    Echo lineEcho;
    QSerialPort port(bareEcho.name);
    Core_SerialPort line;
    if (!port.open(QIODevice::ReadWrite) || !open(line, lineEcho)) {
        std::printf("round trip: no pseudo-terminal\n");
        return;
    }
    bareEcho.start();
    lineEcho.start();
    model_Protocoldata record;
    const QByteArray frame = line.produceCmds(record);
    for (int i = 0; i < rounds; ++i) {
        // Anywhere between two passes of the parser.
        std::this_thread::sleep_for(std::chrono::microseconds(phase(random)));
        whole.push_back(lineRoundTrip(line, record));
        bare.push_back(bareRoundTrip(port, frame));
    }
    const double raw = ratio::percentile(bare, 0.5);
    const double median = ratio::percentile(whole, 0.5);
    // The pause as this machine makes it.
    const double pause =
        ratio::secondsPerCall([] { std::this_thread::sleep_for(text.interval); }, 200);
    const double explained = pause / 2 + raw;
    ratio::record("serial round trip, to the bare port and half the pause", 0, median * 1e6,
                  explained * 1e6, "us");
    std::printf(
        "round trip, median: %.3f ms; half the pause of %.3f ms and the bare port's %.3f ms "
        "make %.3f ms: %+.3f ms (goal: 0.3 or less)\n",
        median * 1e3, pause * 1e3, raw * 1e3, explained * 1e3, (median - explained) * 1e3);
}

void silentLine()
{
    constexpr std::chrono::seconds duration(5);
    const Echo echo;
    const auto heapBefore = mallinfo2().uordblks;
    Core_SerialPort line;
    if (!open(line, echo)) {
        std::printf("silent line: no pseudo-terminal\n");
        return;
    }
    QCoreApplication::processEvents();
    double before = processstate::cpuSeconds();
    std::this_thread::sleep_for(duration);
    const double used = processstate::cpuSeconds() - before;
    const auto heap = mallinfo2().uordblks - heapBefore;
    line.closeSerialPort();
    before = processstate::cpuSeconds();
    const auto end = std::chrono::steady_clock::now() + duration;
    while (std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(text.interval);
    }
    const double bare = processstate::cpuSeconds() - before;
    ratio::record("open, silent line, to a thread that only pauses", 0, used, bare, "s");
    std::printf(
        "open, silent line: %.2f %% of one core (goal: 1 or less), %.2f times a thread that "
        "only pauses (goal: 1.5 or less), %zu bytes of heap (goal: 65536 or less)\n",
        used / 5 * 100, used / bare, heap);
}

} // namespace

int main(int argc, char** argv)
{
    const QCoreApplication application(argc, argv);
    const QTemporaryDir directory;
    Utility_Manage::setLogFile(directory.filePath(QStringLiteral("bench.log")), 1 << 30);
    QLoggingCategory::defaultCategory()->setEnabled(QtDebugMsg, false);

    silentLine();
    replies("standard reply", replybytes::text(0x10, 0x20), text);
    replies("immediate reply", replybytes::text(0x79, 0x0C), text);
    replies("reply with 129 bytes", replybytes::text(0x77, 0x23) + replybytes::block(129), text);
    replies("second line, 129 bytes", replybytes::head(129) + replybytes::block(129), binary);

    resynchronise("16 MiB of noise without a mark, to one look", QByteArray(longBacklog, 'x'));
    QByteArray random(longBacklog, '\0');
    std::minstd_rand generator(1);
    for (char& byte : random) {
        byte = static_cast<char>(generator() >> 16);
    }
    resynchronise("16 MiB of random noise, to one look", random);
    roundTrips();
    return 0;
}
