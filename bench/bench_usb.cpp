// SPDX-License-Identifier: MIT
// What sending over USB adds to hid_write and the log, and how long a reply takes, on an emulated
// hidraw node.
#include "biz_cmdswork.h"
#include "core_usb.h"
#include "debugline.h"
#include "emulatedhid.h"
#include "processstate.h"
#include "ratio.h"
#include "utility_manage.h"

#include <QCoreApplication>
#include <QTemporaryDir>

#include <hidapi.h>

#include <array>
#include <ctime>
#include <thread>

namespace
{

constexpr quint16 vendor = 0x04B4;
constexpr quint16 product = 0x2000;
constexpr int reportLength = 65;
constexpr int rounds = 3000;
constexpr int replies = 40;
constexpr double goalMicroseconds = 2;
constexpr int silentSeconds = 5;

void discard(QtMsgType, const QMessageLogContext&, const QString&) {}

// Processor time of this thread: the node is answered by another one, whose part only adds noise.
double threadSeconds()
{
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

template <class Function>
void measure(std::vector<double>& samples, Function&& function)
{
    const double start = threadSeconds();
    function();
    samples.push_back(threadSeconds() - start);
}

void printSend(const char* what, std::vector<double>& alone, std::vector<double>& whole,
               double goal)
{
    const double baseline = ratio::percentile(alone, 0.5) * 1e6;
    const double added = ratio::percentile(whole, 0.5) * 1e6 - baseline;
    ratio::record(what, 0, added, baseline, "us");
    std::printf("%-46s %8.2f us more than %8.2f us (goal: %.1f or less)\n", what, added, baseline,
                goal);
}

// hid_write and the log lines by hand, against sendDatatoDevice, in turns.
void benchSend(Core_USB& line, const char* what, int blockSize, double goal)
{
    hid_device* const bare = hid_open(vendor, product, nullptr);
    model_Protocoldata record;
    record.CMD = 0x10;
    record.arryDatablock = QByteArray(blockSize, 'x');
    const QByteArray frame = line.produceCmds(record);
    const QString said = textWithBytes("Send usb data:", frame.left(19));
    std::vector<double> alone;
    std::vector<double> whole;
    for (int i = 0; i < rounds * 19 / frame.size() + 20; ++i) {
        measure(alone, [&] {
            for (QByteArray::size_type start = 0; start < frame.size(); start += reportLength - 1) {
                std::array<unsigned char, reportLength> report{};
                const auto size = qMin(reportLength - 1, frame.size() - start);
                std::copy_n(frame.constData() + start, size, report.begin() + 1);
                hid_write(bare, report.data(), report.size());
                Utility_Manage::writeLog(textWithBytes("Send successful:", frame.mid(start)));
            }
            qCDebug(debugLine) << said;
        });
        measure(whole, [&] { line.sendDatatoDevice(&record); });
    }
    hid_close(bare);
    printSend(what, alone, whole, goal);
}

bool queued(std::size_t count)
{
    const std::lock_guard lock(biz_CMDSWork::receiveHexCmdlock);
    return biz_CMDSWork::receivequeueHexCmd.size() >= count;
}

// The fixed pauses are at most 100 ms before the read and 20 ms before the parser's look.
void benchReplies(EmulatedHid& device)
{
    std::vector<double> latencies;
    for (std::size_t i = 1; i <= replies; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(17 * (i % 7)));
        const auto start = std::chrono::steady_clock::now();
        device.sendPadded("<F010203040506071c>");
        while (!queued(i)) {
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
        latencies.push_back(
            std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    }
    ratio::record("USB round trip", 0, ratio::percentile(latencies, 0.5) * 1e6, 0, "us");
    std::printf("%-46s %8.1f ms median, %.1f ms worst (pauses: up to 120; goal: 121 or less)\n",
                "reply latency", ratio::percentile(latencies, 0.5) * 1e3,
                ratio::percentile(latencies, 1) * 1e3);
}

void benchSilence()
{
    const double before = processstate::cpuSeconds();
    std::this_thread::sleep_for(std::chrono::seconds(silentSeconds));
    std::printf("%-46s %8.3f %% of one core (goal: 0.5 or less)\n", "open, silent device",
                (processstate::cpuSeconds() - before) / silentSeconds * 100);
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    const QTemporaryDir directory;
    Utility_Manage::setLogFile(directory.filePath(QStringLiteral("bench.log")));
    qInstallMessageHandler(discard);
    HidTestbed testbed;
    EmulatedHid device(testbed, vendor, product);
    Core_USB line;
    if (!line.openUSB(vendor, product)) {
        std::fprintf(stderr, "the emulated device cannot be opened\n");
        return 1;
    }
    benchSend(line, "19-byte frame: sendDatatoDevice adds", 0, goalMicroseconds);
    benchSend(line, "4 KiB frame: sendDatatoDevice adds", 4096 - 19, 65 * goalMicroseconds);
    benchReplies(device);
    benchSilence();
}
