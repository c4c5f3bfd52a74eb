// SPDX-License-Identifier: MIT
#include "endstage.h"

#include "endhost.h"
#include "replybytes.h"

#include "corefactory.h"
#include "icorebase.h"
#include "icoreosdbase.h"
#include "linkcounters.h"
#include "model_osdparam.h"
#include "model_protocoldata.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QTimer>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <thread>

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

namespace
{

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;
using Kind = LinkEvent::Kind;

constexpr int reportDescriptor = 3;
constexpr int usbFeeder = 4; ///< who has the emulated device writes what comes here to it
constexpr int notReady = 9;
constexpr int kept = 5; // replies that the host keeps waiting
constexpr std::chrono::seconds patience{30};
constexpr int localPort = 5104;
constexpr unsigned short vendor = 0x04B4;
constexpr unsigned short product = 0x2000;

/// One link and the device at its other end, which writes and nothing else. It is never destroyed:
/// its threads may be at work while the process ends.
struct Stage {
    std::string link;
    std::string way;
    std::string state;
    std::mt19937 random;
    std::shared_ptr<LinkCounters> counters = std::make_shared<LinkCounters>();
    ICoreBase* core = nullptr;
    ICoreOsdBase* display = nullptr;
    int device = -1;
    sockaddr_in to{};
    int nextTag = 1;
    std::atomic<bool> feeds{false};
    std::thread feeder;

    bool isUdp() const { return link == "udp"; }
    bool isVela() const { return link == "vela"; }
    bool isUsb() const { return link == "usb"; }
    bool isDisplay() const { return link == "osd"; }
};

template <class Condition>
bool comesTrue(Condition&& condition)
{
    const auto end = Clock::now() + patience;
    while (!condition()) {
        if (Clock::now() > end) {
            return false;
        }
        QEventLoop loop;
        QTimer::singleShot(1, &loop, &QEventLoop::quit);
        loop.exec();
    }
    return true;
}

void pump(int ms)
{
    QEventLoop loop;
    QTimer::singleShot(ms, &loop, &QEventLoop::quit);
    loop.exec();
}

QByteArray reply(const Stage& stage, int tag)
{
    if (stage.isDisplay()) {
        return QByteArray("OK") + static_cast<char>(tag);
    }
    return stage.isVela() ? replybytes::head(0, 0x31, tag) : replybytes::text(0x10, tag);
}

void write(const Stage& stage, const QByteArray& bytes)
{
    const auto size = static_cast<std::size_t>(bytes.size());
    if (stage.isUdp()) {
        (void)sendto(stage.device, bytes.constData(), size, 0,
                     reinterpret_cast<const sockaddr*>(&stage.to), sizeof stage.to);
    } else {
        (void)!::write(stage.device, bytes.constData(), size);
    }
}

void sendReply(Stage& stage)
{
    write(stage, reply(stage, stage.nextTag++));
}

sockaddr_in loopback(int port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<in_port_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

QString makeTerminal(int& master)
{
    master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    grantpt(master);
    unlockpt(master);
    std::array<char, 64> name{};
    ptsname_r(master, name.data(), name.size());
    termios raw{};
    tcgetattr(master, &raw);
    cfmakeraw(&raw);
    tcsetattr(master, TCSANOW, &raw);
    return QString::fromLatin1(name.data());
}

bool openUdp(Stage& stage)
{
    stage.core = CoreFactory::creatCoreObj(ConnUdp);
    stage.device = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    stage.to = loopback(localPort);
    stage.core->setDeviceIP(QStringLiteral("127.0.0.1"));
    return true;
}

bool openLine(Stage& stage, bool opens)
{
    stage.core = CoreFactory::creatCoreObj(stage.isVela() ? ConnVelaSerial : ConnSerial);
    const QString name = makeTerminal(stage.device);
    return !opens || stage.core->openSerialPort(name, QSerialPort::Baud115200, QSerialPort::OneStop,
                                                QSerialPort::NoParity, QSerialPort::NoFlowControl,
                                                QSerialPort::Data8);
}

bool openUsb(Stage& stage, bool opens)
{
    stage.core = CoreFactory::creatCoreObj(ConnUsb);
    stage.device = usbFeeder;
    return !opens || stage.core->openUSB(vendor, product);
}

bool openDisplay(Stage& stage, bool opens)
{
    stage.display = CoreFactory::createOsdCoreObj(ConnOsdTcp);
    stage.display->addObserver(stage.counters);
    if (!opens) {
        return true;
    }
    sockaddr_in own = loopback(0);
    socklen_t length = sizeof own;
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (bind(listener, reinterpret_cast<const sockaddr*>(&own), sizeof own) != 0 ||
        listen(listener, 1) != 0 ||
        getsockname(listener, reinterpret_cast<sockaddr*>(&own), &length) != 0) {
        return false;
    }
    stage.display->openClient(QStringLiteral("127.0.0.1"), ntohs(own.sin_port));
    stage.device = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    ::close(listener);
    return stage.device >= 0 && comesTrue([&] { return stage.counters->events(Kind::Opened) > 0; });
}

bool open(Stage& stage)
{
    const bool opens = stage.state != "closed";
    const bool isOpen = stage.isDisplay() ? openDisplay(stage, opens)
                        : stage.isUdp()   ? openUdp(stage)
                        : stage.isUsb()   ? openUsb(stage, opens)
                                          : openLine(stage, opens);
    if (isOpen && stage.core != nullptr) {
        stage.core->addObserver(stage.counters);
    }
    return isOpen;
}

void sendCommand(const Stage& stage, bool systemPlan = false)
{
    model_Protocoldata record;
    record.strKey = QStringLiteral("127.0.0.1");
    if (systemPlan) {
        stage.core->sendDatatoDeviceForSysPlan(&record);
    } else {
        stage.core->sendDatatoDevice(&record);
    }
}

// Something that leads the library into the host's log, or into what else it calls on a thread of
// its own.
void leadIntoTheLog(Stage& stage)
{
    if (stage.isUdp()) {
        sendCommand(stage, true);
    } else if (stage.isDisplay()) {
        write(stage, reply(stage, 0x7f));
    } else if (stage.isVela()) {
        sendCommand(stage); // its parser logs nothing
    } else {
        QByteArray wrong = replybytes::text(0x10, 0);
        wrong[5] = static_cast<char>(wrong[5] ^ 1);
        write(stage, wrong);
    }
}

// What the host keeps waiting has left the link.
bool areKept(const Stage& stage)
{
    if (stage.isDisplay()) {
        return endhost::waiting() == kept;
    }
    // A parser of the second serial line waits with the first reply.
    return stage.isVela() ? stage.counters->bytes(Kind::Received) >= quint64{16} * kept
                          : stage.counters->events(Kind::Reply) >= kept;
}

void feed(Stage& stage)
{
    stage.feeds = true;
    stage.feeder = std::thread([&stage] {
        while (stage.feeds && stage.nextTag < 100) {
            sendReply(stage);
            std::this_thread::sleep_for(milliseconds(1));
        }
    });
}

// Brings the link into the state. False if that does not come about.
bool enter(Stage& stage)
{
    const std::string& state = stage.state;
    if (state == "closed" || state == "idle") {
        return true;
    }
    if (state == "busy") {
        feed(stage);
        const std::size_t few = 1 + stage.random() % 5;
        return comesTrue([few] { return endhost::replies() >= few; });
    }
    if (state == "block") {
        sendReply(stage);
        write(stage, stage.isVela() ? replybytes::head(200) : replybytes::text(0x8B, 0x05));
        const bool has = comesTrue([] { return endhost::replies() == 1; });
        pump(static_cast<int>(stage.random() % 30));
        return has;
    }
    if (state == "kept" || state == "held" || state == "flag") {
        state == "flag" ? endhost::keepFlag() : endhost::keepQueues();
        for (int i = 0; i < kept; ++i) {
            sendReply(stage);
        }
        return state == "flag" ? (pump(static_cast<int>(stage.random() % 30)), true)
                               : comesTrue([&stage] { return areKept(stage); });
    }
    if (state == "lost") {
        if (!stage.isUsb()) {
            ::close(stage.device);
        }
        pump(static_cast<int>(stage.random() % 50));
        return true;
    }
    // log, late
    endhost::setLog(state == "log" ? endhost::Log::Blocks : endhost::Log::ReturnsLate);
    if (stage.isVela()) {
        return true;
    }
    leadIntoTheLog(stage);
    return comesTrue([] { return endhost::isInLog(); });
}

void waitForTheEnd()
{
    QEventLoop().exec();
}

int endFork(Stage& stage)
{
    const pid_t child = fork();
    if (child == 0) {
        stage.feeds = false;
        endhost::note("child");
        return 0;
    }
    int status = 1;
    (void)waitpid(child, &status, 0);
    endhost::note("end");
    return status == 0 ? 0 : 8;
}

int end(Stage& stage)
{
    if (stage.state == "kept") {
        endhost::releaseQueues();
    }
    if (stage.way == "return") {
        endhost::note("end");
        return 0;
    }
    if (stage.way == "delete") {
        endhost::note("end");
        delete stage.core;
        delete stage.display;
        CoreFactory::iCORE = nullptr;
        CoreFactory::iOsdCore = nullptr;
        return 0;
    }
    if (stage.way == "slot") {
        QTimer::singleShot(0, endhost::endOnce);
        waitForTheEnd();
    }
    if (stage.way == "log") {
        endhost::setLog(endhost::Log::Exits);
        const bool isKept =
            stage.state != "idle" && stage.state != "busy" && stage.state != "block";
        if (isKept && !stage.isDisplay()) { // the host keeps the thread that would go there
            sendCommand(stage);
        } else {
            leadIntoTheLog(stage);
        }
        waitForTheEnd();
    }
    if (stage.way == "thread") {
        std::thread(endhost::endOnce).detach();
        waitForTheEnd();
    }
    if (stage.way == "quick") {
        endhost::note("end");
        std::quick_exit(0);
    }
    if (stage.way == "fork") {
        return endFork(stage);
    }
    // dlclose: this code goes, so its thread must have ended
    stage.feeds = false;
    if (stage.feeder.joinable()) {
        stage.feeder.join();
    }
    endhost::note("end");
    return 0;
}

} // namespace

extern "C" int endstage(int argc, char** argv)
{
    if (argc != 5) {
        return 2;
    }
    static auto* const stage = new Stage;
    stage->link = argv[1];
    stage->way = argv[2];
    stage->state = argv[3];
    stage->random.seed(static_cast<unsigned>(std::atol(argv[4])));
    endhost::begin(reportDescriptor);
    const QCoreApplication application(argc, argv);
    if (!open(*stage) || !enter(*stage)) {
        endhost::note("not ready");
        _exit(notReady);
    }
    return end(*stage);
}
