// SPDX-License-Identifier: MIT
#include "udptarget.h"

#include "commandframe.h"
#include "corefactory.h"
#include "corelink.h"
#include "devicedemo.h"
#include "icorebase.h"
#include "toolerror.h"
#include "udpports.h"
#include "udpsimulator.h"
#include "utility_manage.h"

#include <cerrno>
#include <cstring>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

constexpr quint16 fixedPort = 3005; // of the device types that have one, at both ends
constexpr quint16 devicePort = 1000;
constexpr quint16 usualLocalPort = 5104;
constexpr int largestDatagram = 65507;
constexpr quint8 broadcastMode = 1;

bool hasFixedPort()
{
    const auto type = Utility_Manage::getDeviceType();
    return type == model_GlobalEnum::Device353100 || type == model_GlobalEnum::Device353101;
}

// Why datagrams cannot go there now; empty if they can. Sends nothing.
QString obstacle(const QHostAddress& host, quint16 port)
{
    const int descriptor = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const int on = 1;
    setsockopt(descriptor, SOL_SOCKET, SO_BROADCAST, &on, sizeof on);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(host.toIPv4Address());
    const bool reachable =
        connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    QString reason = reachable ? QString() : QString::fromLocal8Bit(std::strerror(errno));
    close(descriptor);
    return reason;
}

class UdpTarget : public LinkTarget
{
public:
    UdpTarget(LinkAddress written, const QHostAddress& address, quint16 number)
        : text(std::move(written)), host(address), port(number)
    {
    }

    FieldSet fields() const override { return FieldSet::TextBody; }

    Faulty faulty() const override { return Faulty::Datagrams; }

    void check(const Command& command) const override
    {
        const int most = largestDatagram - commandframe::textLength;
        if (command.record.sendMode == broadcastMode &&
            command.record.arryDatablock.size() > most) {
            throw BadInput(QStringLiteral("--block: %1 bytes do not fit into one broadcast: give "
                                          "at most %2")
                               .arg(command.record.arryDatablock.size())
                               .arg(most));
        }
    }

    std::unique_ptr<DeviceLink> open(bool broadcast) const override
    {
        if (port == 0) {
            text.refuse(QStringLiteral("a device's port is a number from 1 to 65535"));
        }
        if (host == QHostAddress(QHostAddress::AnyIPv4)) {
            text.refuse(QStringLiteral("0.0.0.0 is no device: give the device's own address"));
        }
        const QHostAddress target = broadcast ? QHostAddress(QHostAddress::Broadcast) : host;
        const QString reason = obstacle(target, port);
        if (!reason.isEmpty()) {
            throw LinkDown(QStringLiteral("%1: no way to %2: %3; is the network up?")
                               .arg(text.text, target.toString(), reason));
        }
        std::unique_ptr<ICoreBase> core(CoreFactory::creatCoreObjInstance(ConnUdp));
        const quint16 local = udptarget::localPort();
        if (!udpports::isOurs(local)) {
            throw LinkDown(QStringLiteral("%1: replies come to local port %2, which %3 has; end it "
                                          "first, or, for simulated devices only, run: unshare "
                                          "-rn sh -c 'ip link set lo up; exec sh'")
                               .arg(text.text)
                               .arg(local)
                               .arg(udpports::holder(local)));
        }
        core->setDeviceIP(host.toString());
        core->setPort(port);
        core->setDeviceType(Utility_Manage::getDeviceType());
        return std::make_unique<CoreLink>(std::move(core), fields(),
                                          broadcast ? QString() : host.toString());
    }

    std::unique_ptr<Simulation> simulate(const SimulatedDevice::Settings& settings) const override
    {
        return std::make_unique<UdpSimulator>(host, port, settings);
    }

private:
    LinkAddress text;
    QHostAddress host;
    quint16 port;
};

} // namespace

std::unique_ptr<LinkTarget> udptarget::parse(const LinkAddress& address)
{
    address.allowOptions({});
    const auto target = address.ipTarget(hasFixedPort() ? fixedPort : devicePort);
    return std::make_unique<UdpTarget>(address, target.host, target.port);
}

bool udptarget::demonstrate(Narrator& narrator)
{
    return devicedemo::run(narrator, QStringLiteral("udp://127.0.0.1:0"));
}

quint16 udptarget::localPort()
{
    return hasFixedPort() ? fixedPort : usualLocalPort;
}
