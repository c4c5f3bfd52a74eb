// SPDX-License-Identifier: MIT
// Round trips and floods over loopback, against sockets that do the same by hand.
#include "biz_cmdswork.h"
#include "core_udp.h"
#include "netns.h"
#include "processstate.h"
#include "ratio.h"
#include "udpecho.h"
#include "utility_manage.h"

#include <QCoreApplication>
#include <QFile>
#include <QLoggingCategory>
#include <QTemporaryDir>
#include <QTimer>
#include <QUdpSocket>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

constexpr quint16 linkPort = 5104;

std::size_t queued()
{
    const std::lock_guard lock(biz_CMDSWork::receiveHexCmdlock);
    return biz_CMDSWork::receivequeueHexCmd.size();
}

void emptyQueue()
{
    const std::lock_guard lock(biz_CMDSWork::receiveHexCmdlock);
    biz_CMDSWork::receivequeueHexCmd.clear();
}

double elapsed(std::chrono::steady_clock::time_point start)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

void roundTrips()
{
    constexpr int rounds = 20000;
    const UdpEcho echo;
    std::vector<double> library;
    std::vector<double> bare;
    {
        core_UDP transport;
        transport.setDeviceIP(QStringLiteral("127.0.0.1"));
        transport.setPort(echo.port);
        QUdpSocket socket;
        socket.bind(QHostAddress(QHostAddress::LocalHost), quint16{0});
        const QHostAddress device(QHostAddress::LocalHost);
        bool answered = false;
        QObject::connect(&socket, &QUdpSocket::readyRead, &socket, [&] {
            while (socket.hasPendingDatagrams()) {
                QByteArray datagram(static_cast<int>(socket.pendingDatagramSize()), '\0');
                QHostAddress sender;
                socket.readDatagram(datagram.data(), datagram.size(), &sender);
                answered = true;
            }
        });
        model_Protocoldata record;
        const QByteArray frame = transport.produceCmds(record);
        for (int i = 0; i < rounds; ++i) { // in turns
            auto start = std::chrono::steady_clock::now();
            transport.sendDatatoDevice(&record);
            while (queued() == 0) {
                QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
            }
            library.push_back(elapsed(start));
            emptyQueue();

            answered = false;
            start = std::chrono::steady_clock::now();
            socket.writeDatagram(frame, device, echo.port);
            while (!answered) {
                QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
            }
            bare.push_back(elapsed(start));
        }
    }
    ratio::printTimes("round trip, median, to a bare QUdpSocket", ratio::percentile(bare, 0.5),
                      ratio::percentile(library, 0.5), 1.5);
    ratio::printTimes("round trip, 99th percentile", ratio::percentile(bare, 0.99),
                      ratio::percentile(library, 0.99), 2.0);
}

long droppedByKernel()
{
    QFile table(QStringLiteral("/proc/net/udp6"));
    if (!table.open(QIODevice::ReadOnly)) {
        return -1;
    }
    const QByteArray port = ":" + QByteArray::number(linkPort, 16).toUpper() + " ";
    for (const QByteArray& line : table.readAll().split('\n')) {
        if (line.contains(port)) {
            return line.simplified().split(' ').last().toLong();
        }
    }
    return -1;
}

long linesLogged()
{
    QFile file(Utility_Manage::logFile());
    long lines = 0;
    if (file.open(QIODevice::ReadOnly)) {
        while (!file.atEnd()) {
            lines += file.read(1 << 20).count('\n');
        }
    }
    return lines;
}

void sendMany(const QByteArray& datagram, long count, quint16 port)
{
    const int descriptor = socket(AF_INET, SOCK_DGRAM, 0);
    const sockaddr_in to = udpecho::loopback(port);
    for (long i = 0; i < count; ++i) {
        sendto(descriptor, datagram.constData(), static_cast<std::size_t>(datagram.size()), 0,
               reinterpret_cast<const sockaddr*>(&to), sizeof to);
    }
    close(descriptor);
}

// Datagrams that wait in the kernel are read, decoded and queued, or just read.
void reading()
{
    constexpr int batch = 1000;
    constexpr int batches = 201;
    core_UDP transport;
    const int bare = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK, 0);
    const int size = 4 * 1024 * 1024;
    setsockopt(bare, SOL_SOCKET, SO_RCVBUF, &size, sizeof size);
    setsockopt(bare, SOL_SOCKET, SO_RCVBUFFORCE, &size, sizeof size);
    sockaddr_in address = udpecho::loopback(0);
    socklen_t length = sizeof address;
    (void)bind(bare, reinterpret_cast<sockaddr*>(&address), sizeof address);
    getsockname(bare, reinterpret_cast<sockaddr*>(&address), &length);
    std::vector<double> readings;
    std::vector<double> baselines;
    for (int i = 0; i < batches; ++i) { // in turns
        sendMany(udpecho::reply, batch, linkPort);
        readings.push_back(ratio::secondsPerCall([&] { transport.readPendingDatagrams(); }, 1));
        if (queued() != batch) {
            std::fprintf(stderr, "bench_udp: %zu of %d replies queued\n", queued(), batch);
            std::exit(1);
        }
        emptyQueue();
        sendMany(udpecho::reply, batch, ntohs(address.sin_port));
        baselines.push_back(ratio::secondsPerCall(
            [bare] {
                char buffer[2048];
                sockaddr_in from{};
                socklen_t fromLength = sizeof from;
                while (recvfrom(bare, buffer, sizeof buffer, 0, reinterpret_cast<sockaddr*>(&from),
                                &fromLength) >= 0) {
                }
            },
            1));
    }
    close(bare);
    ratio::printTimes("a waiting reply, to a bare recvfrom",
                      ratio::percentile(baselines, 0.5) / batch,
                      ratio::percentile(readings, 0.5) / batch, 1.5);
}

// Replies end in the queue, everything else in the log: one entry for each datagram.
void flood(const char* what, const QByteArray& datagram)
{
    constexpr long total = 1000000;
    constexpr int helpers = 2;
    emptyQueue();
    core_UDP transport;
    const int threadsBefore = processstate::threads();
    const long residentBefore = processstate::residentKiB();
    const long loggedBefore = linesLogged();
    std::atomic<bool> sent{false};
    int mostThreads = 0;
    int ticks = 0;
    QTimer timer;
    QObject::connect(&timer, &QTimer::timeout, [&ticks] { ++ticks; });
    timer.start(10);
    const auto start = std::chrono::steady_clock::now();
    std::thread sender([&] {
        sendMany(datagram, total, linkPort);
        sent = true;
    });
    std::thread watcher([&] {
        while (!sent) {
            mostThreads = std::max(mostThreads, processstate::threads());
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    while (!sent) {
        QCoreApplication::processEvents();
    }
    const double seconds = elapsed(start);
    timer.stop();
    sender.join();
    watcher.join();
    const long delivered = total - droppedByKernel();
    const long resident = processstate::residentKiB() - residentBefore;
    const auto entries = [&] { return static_cast<long>(queued()) + linesLogged() - loggedBefore; };
    for (int i = 0; i < 1000 && entries() < delivered; ++i) {
        QCoreApplication::processEvents();
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    const QByteArray name = QByteArray("flood of ") + what;
    ratio::record(name + ": kept", total, static_cast<double>(entries()),
                  static_cast<double>(delivered), "datagrams");
    ratio::record(name + ": each", total, seconds / static_cast<double>(total) * 1e6, 0, "us");
    std::printf(
        "flood of %s: %ld sent, %ld delivered by the kernel, %ld in the queue or the log, "
        "%.2f us each,\n    %d threads more than at rest (goal: 4 or fewer), %ld KiB more "
        "memory, the queue's records being %ld KiB\n"
        "    a 10 ms timer of the same thread fired %.0f times a second (goal: 20 or more)\n",
        what, total, delivered, entries(), seconds / static_cast<double>(total) * 1e6,
        mostThreads - threadsBefore - helpers, resident,
        static_cast<long>(queued() * sizeof(model_Protocoldata) / 1024), ticks / seconds);
    emptyQueue();
}

} // namespace

int main(int argc, char** argv)
{
    if (!netns::isolate()) {
        std::fprintf(stderr, "no network namespace of its own: port %d must be free\n", linkPort);
    }
    const QCoreApplication application(argc, argv);
    const QTemporaryDir directory;
    Utility_Manage::setLogFile(directory.filePath(QStringLiteral("bench.log")), 1 << 30);
    QLoggingCategory::defaultCategory()->setEnabled(QtDebugMsg, false);
    roundTrips();
    reading();
    flood("replies", QByteArray(udpecho::reply));
    flood("orphan blocks", "no reply before this block");
    return 0;
}
