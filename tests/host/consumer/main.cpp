// SPDX-License-Identifier: MIT
// A host program: sends one command to a device on loopback and waits for the reply in its queue.
#include "biz_cmdswork.h"
#include "core_udp.h"
#include "corefactory.h"
#include "icorebase.h"
#include "utility_manage.h"
#ifdef WITH_CAPTURE
#include "linkcapture.h"
#endif

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QUdpSocket>

#include <cstdio>
#include <memory>
#include <string>

#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

namespace
{

constexpr int patienceMs = 90000;

int failed(const char* what)
{
    std::fprintf(stderr, "consumer: %s\n", what);
    return 1;
}

// The link's local port is fixed: a network of the program's own keeps it free.
void isolate()
{
    if (unshare(CLONE_NEWNET) != 0) {
        return;
    }
    ifreq request{};
    request.ifr_name[0] = 'l';
    request.ifr_name[1] = 'o';
    request.ifr_flags = IFF_UP | IFF_RUNNING;
    ioctl(socket(AF_INET, SOCK_DGRAM, 0), SIOCSIFFLAGS, &request);
}

bool anythingQueued()
{
    const std::lock_guard lock(biz_CMDSWork::receiveHexCmdlock);
    return !biz_CMDSWork::receivequeueHexCmd.empty();
}

// Nothing but the reply, whatever a new record of the host holds.
bool replyQueued()
{
    const std::lock_guard lock(biz_CMDSWork::receiveHexCmdlock);
    const model_Protocoldata& reply = biz_CMDSWork::receivequeueHexCmd.front();
    return biz_CMDSWork::receivequeueHexCmd.size() == 1 && reply.CMD == 0x10 && reply.HEAD == 0 &&
           reply.DAT4 == 0 && reply.arryDatablock.isEmpty();
}

// A command to the link's device whose body is all zero but for CMD.
model_Protocoldata command()
{
    model_Protocoldata record;
    record.HEAD = record.ADDR = record.DAT1 = record.DAT2 = record.DAT3 = record.DAT4 = 0;
    record.CMD = 0x10;
    record.arryDatablock.clear();
    record.sendMode = 0;
    record.featureCode = 0;
    return record;
}

bool referenceHostLoaded()
{
    QFile maps(QStringLiteral("/proc/self/maps"));
    return maps.open(QIODevice::ReadOnly) && maps.readAll().contains("libCore_ManageHost");
}

} // namespace

int main(int argc, char** argv)
{
    isolate();
    QCoreApplication application(argc, argv);
    const bool wantsReferenceHost = argc > 1 && std::string(argv[1]) == "reference";
    if (referenceHostLoaded() != wantsReferenceHost) {
        return failed(wantsReferenceHost ? "the reference host is not loaded"
                                         : "the reference host is loaded beside the own one");
    }

    QUdpSocket device;
    if (!device.bind(QHostAddress(QHostAddress::LocalHost), quint16{0})) {
        return failed("no port for the device");
    }
    const std::unique_ptr<ICoreBase> transport(CoreFactory::creatCoreObjInstance(ConnUdp));
    if (qobject_cast<core_UDP*>(transport.get()) != dynamic_cast<core_UDP*>(transport.get()) ||
        dynamic_cast<core_UDP*>(transport.get()) == nullptr) {
        return failed("the link is not what the factory was asked for");
    }
    transport->setDeviceIP(QStringLiteral("127.0.0.1"));
    transport->setPort(device.localPort());
#ifdef WITH_CAPTURE
    const auto capture = std::make_shared<CaptureFile>();
    if (!capture->open(QStringLiteral("/dev/null"))) {
        return failed("no capture");
    }
    transport->addObserver(
        std::make_shared<LinkCapture>(capture, QStringLiteral("udp://127.0.0.1")));
#endif
    model_Protocoldata record = command();
    transport->sendDatatoDevice(&record);

    QElapsedTimer patience;
    patience.start();
    while (!anythingQueued()) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 10);
        if (device.hasPendingDatagrams()) {
            QHostAddress from;
            quint16 port = 0;
            char bytes[64];
            device.readDatagram(bytes, sizeof bytes, &from, &port);
            device.writeDatagram("no reply", 8, from, port);
            device.writeDatagram("<F0000100000000010>", 19, from, port);
        }
        if (patience.elapsed() > patienceMs) {
            return failed("no reply in the host's queue");
        }
    }
    if (!replyQueued()) {
        return failed("what is queued is not the reply alone");
    }
    if (!biz_CMDSWork::bRetFlag) {
        return failed("the flag was not raised");
    }
#ifdef WITH_CAPTURE
    capture->close();
    if (capture->written() < 3 || capture->dropped() != 0) { // a command and two datagrams
        return failed("what was sent and received is not captured");
    }
#endif
#ifdef OWN_HOST_API
    if (Utility_Manage::linesWritten == 0) {
        return failed("the own log did not get its lines");
    }
    transport->clearQueue();
    while (biz_CMDSWork::cleared == 0) {
        if (patience.elapsed() > patienceMs) {
            return failed("the own class was not asked to clear the queue");
        }
    }
#endif
    std::puts("consumer: reply received");
    return 0;
}
