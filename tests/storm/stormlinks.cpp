// SPDX-License-Identifier: MIT
#include "stormlinks.h"

#ifdef STORM_HAS_USB
#include "hiddevice.h"
#endif
#include "replybytes.h"
#include "utility_manage.h"

#include "core_serialport.h"
#include "core_udp.h"
#include "icoreosdbase.h"
#include "model_osdparam.h"
#include "vela_core_serialport.h"

#include <array>
#include <thread>

namespace
{

using std::chrono::milliseconds;

constexpr int longestBlock = 500; // one datagram: a frame of several can have an unknown outcome
constexpr int display = StormHost::displayLink;

QByteArray someBytes(Random& random, int most)
{
    QByteArray bytes(below(random, most + 1), '\0');
    for (char& byte : bytes) {
        byte = static_cast<char>(random());
    }
    return bytes;
}

/// A link to a device.
class DeviceLink : public StormLink
{
public:
    DeviceLink(ConnType type, std::unique_ptr<Peer> device) : StormLink(type, std::move(device)) {}

    void make(bool byFactory) override
    {
        destroy();
        const std::unique_lock guard(lock);
        isFactorys = byFactory;
        const auto type = static_cast<ConnType>(link);
        core =
            byFactory ? CoreFactory::creatCoreObj(type) : CoreFactory::creatCoreObjInstance(type);
    }

    void destroy() override
    {
        const std::unique_lock guard(lock);
        delete core;
        core = nullptr;
        if (isFactorys) {
            CoreFactory::iCORE = nullptr;
        }
    }

    void set(Random& random) override
    {
        switch (below(random, 5)) {
        case 0:
            Utility_Manage::setDeviceType(below(random, 2) == 0 ? model_GlobalEnum::Device353100
                                                                : model_GlobalEnum::DeviceUnknown);
            break;
        case 1:
            core->setDeviceType(static_cast<model_GlobalEnum::DeviceType>(below(random, 100)));
            break;
        case 2:
            core->clearQueue();
            break;
        case 3:
            core->addObserver(observer);
            break;
        default:
            core->removeObserver(observer);
        }
    }

    void send(Random& random) override
    {
        model_Protocoldata record;
        record.CMD = static_cast<quint8>(StormHost::firstCommand + link);
        record.arryDatablock = someBytes(random, below(random, 4) == 0 ? longestBlock : 0);
        record.strKey = QStringLiteral("127.0.0.1");
        const std::shared_lock guard(lock);
        if (core == nullptr) {
            return;
        }
        switch (below(random, 8)) {
        case 0:
            record.featureCode = 0x400000;
            core->sendDatatoDeviceByFeatures(&record);
            break;
        case 1:
            core->sendDatatoDeviceForSysPlan(&record);
            break;
        default:
            core->sendDatatoDevice(&record);
        }
    }

    QByteArray reply(int tag) const override
    {
        return replybytes::text(StormHost::firstCommand + link, tag);
    }

protected:
    std::shared_mutex lock; // who sends shares it: a link is not destroyed under its senders
    ICoreBase* core = nullptr;

private:
    bool isFactorys = false;
};

class UdpStormLink : public DeviceLink
{
public:
    UdpStormLink() : DeviceLink(ConnUdp, std::make_unique<UdpDevice>()) {}

    bool open() override
    {
        core->setDeviceIP(QStringLiteral("127.0.0.1"));
        core->setPort(UdpDevice::port);
        return true;
    }

    void close() override { core->setDeviceIP(QString()); }

    void reinitialise(Random& random) override
    {
        auto* const udp = static_cast<core_UDP*>(core);
        if (below(random, 2) == 0) {
            udp->reInitUdp();
        } else {
            udp->reInitUdpZarn();
        }
        (void)open();
    }

    bool sendsFromAnyThread() const override { return true; }
};

class SerialStormLink : public DeviceLink
{
public:
    explicit SerialStormLink(ConnType type) : DeviceLink(type, std::make_unique<PtyDevice>()) {}

    void make(bool byFactory) override
    {
        DeviceLink::make(byFactory);
        watch<Core_SerialPort>();
        watch<Vela_Core_SerialPort>();
    }

    bool open() override
    {
        return core->openSerialPort(static_cast<PtyDevice&>(*peer).portName(),
                                    QSerialPort::Baud115200, QSerialPort::OneStop,
                                    QSerialPort::NoParity, QSerialPort::NoFlowControl,
                                    QSerialPort::Data8);
    }

    void close() override { core->closeSerialPort(); }
    void reinitialise(Random& /*random*/) override { (void)open(); }

    QByteArray reply(int tag) const override
    {
        return link == ConnVelaSerial ? replybytes::head(0, StormHost::firstCommand + link, tag)
                                      : DeviceLink::reply(tag);
    }

private:
    template <class Line>
    void watch()
    {
        if (auto* const line = dynamic_cast<Line*>(core)) {
            QObject::connect(&line->port(), &QSerialPort::errorOccurred, line, &Line::handleError);
        }
    }
};

#ifdef STORM_HAS_USB
class UsbStormLink : public DeviceLink
{
public:
    UsbStormLink() : DeviceLink(ConnUsb, std::make_unique<HidDevice>()) {}

    bool open() override { return core->openUSB(HidDevice::vendor, HidDevice::product); }
    void close() override { core->closeUSB(); }
    void reinitialise(Random& /*random*/) override { (void)open(); }
    bool sendsFromAnyThread() const override { return true; }
    void forgetDevices() override { static_cast<HidDevice&>(*peer).forgetUnplugged(); }
};
#endif

/// Some endpoints of a display.
class DisplayStormLink : public StormLink
{
public:
    DisplayStormLink() : StormLink(display, std::make_unique<TcpDevice>()) {}

    void make(bool /*byFactory*/) override { CoreFactory::createOsdCoreObj(ConnOsdTcp); }

    void destroy() override
    {
        delete CoreFactory::iOsdCore;
        CoreFactory::iOsdCore = nullptr;
    }

    bool open() override
    {
        for (int i = 0; i < endpoints; ++i) {
            CoreFactory::iOsdCore->closeClient(
                ipOf(i)); // it may be lost, and is there all the same
            CoreFactory::iOsdCore->openClient(ipOf(i), TcpDevice::port);
        }
        return true;
    }

    void close() override
    {
        for (int i = 0; i < endpoints; ++i) {
            CoreFactory::iOsdCore->closeClient(ipOf(i));
        }
    }

    void reinitialise(Random& random) override
    {
        const QString ip = ipOf(below(random, endpoints));
        CoreFactory::iOsdCore->closeClient(ip);
        CoreFactory::iOsdCore->openClient(ip, TcpDevice::port + below(random, 2));
    }

    void set(Random& random) override
    {
        if (below(random, 2) == 0) {
            CoreFactory::iOsdCore->addObserver(observer);
        } else {
            CoreFactory::iOsdCore->removeObserver(observer);
        }
    }

    void send(Random& random) override
    {
        model_OsdParam record;
        record.strIP = ipOf(below(random, endpoints));
        record.arryData = someBytes(random, below(random, 20) == 0 ? 200'000 : 20);
        CoreFactory::iOsdCore->sendDatatoDevice(&record);
    }

    QByteArray reply(int tag) const override { return QByteArray("OK") + static_cast<char>(tag); }

private:
    static constexpr int endpoints = 3;
    static QString ipOf(int endpoint) { return QStringLiteral("127.0.0.%1").arg(endpoint + 1); }
};

} // namespace

void StormLink::peerDoes(Random& random)
{
    switch (below(random, 6)) {
    case 0:
        peer->die(false);
        break;
    case 1:
        peer->die(true);
        break;
    case 2:
        peer->hang(milliseconds(below(random, 3000)));
        break;
    case 3:
        peer->flood(reply(1).repeated(1 + below(random, 300)));
        break;
    case 4:
        peer->flood(someBytes(random, 4000));
        break;
    default: // a block that never comes
        peer->flood(link == ConnVelaSerial ? replybytes::head(200) : replybytes::text(0x8B, 0x05));
    }
}

void StormLink::peerIsGood(int tag)
{
    peer->hang(milliseconds(0));
    // While the other thread still polls the socket that was closed, its port is not free.
    while (!peer->comeBack()) {
        std::this_thread::sleep_for(milliseconds(1));
    }
    peer->answerWith(reply(tag));
}

QStringList stormLinkNames()
{
#ifdef STORM_HAS_USB
    return {"udp", "serial", "vela", "usb", "osd"};
#else
    return {"udp", "serial", "vela", "osd"};
#endif
}

std::unique_ptr<StormLink> makeStormLink(const QString& name)
{
    if (name == "udp") {
        return std::make_unique<UdpStormLink>();
    }
    if (name == "serial" || name == "vela") {
        return std::make_unique<SerialStormLink>(name == "vela" ? ConnVelaSerial : ConnSerial);
    }
#ifdef STORM_HAS_USB
    if (name == "usb") {
        return std::make_unique<UsbStormLink>();
    }
#endif
    return name == "osd" ? std::make_unique<DisplayStormLink>() : nullptr;
}
