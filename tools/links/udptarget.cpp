// SPDX-License-Identifier: MIT
#include "commandframe.h"
#include "core_udp.h"
#include "linkregistry.h"
#include "networkpath.h"
#include "sockets.h"
#include "toolerror.h"
#include "udpsimulator.h"
#include "utility_manage.h"

namespace
{

constexpr quint16 fixedPort = 3005; // of the device types that have one, at both ends
constexpr quint16 defaultDevicePort = 1000;
constexpr quint16 defaultLocalPort = 5104;
constexpr int datagramLimit = 65507; // bytes

bool hasFixedPort()
{
    const auto type = Utility_Manage::getDeviceType();
    return type == model_GlobalEnum::Device353100 || type == model_GlobalEnum::Device353101;
}

// Replies of all devices come to one local port, so the links of this process share what has it.
std::shared_ptr<core_UDP> openTransport(const QString& link)
{
    static std::weak_ptr<core_UDP> shared;
    if (auto transport = shared.lock()) {
        return transport;
    }
    const quint16 local = linktargets::localUdpPort();
    if (!sockets::isFree(local)) {
        throw LinkDown(QString("%1: replies come to local port %2, which %3 has; end it "
                               "first, or, for simulated devices only, run: unshare "
                               "-rn sh -c 'ip link set lo up; exec sh'")
                           .arg(link)
                           .arg(local)
                           .arg(sockets::holder(local)));
    }
    auto transport = std::make_shared<core_UDP>();
    transport->setDeviceType(Utility_Manage::getDeviceType());
    CoreLink::watch(*transport);
    shared = transport;
    return transport;
}

// Says with each send where it goes: the transport is not this link's alone.
class UdpDeviceLink : public CoreLink
{
public:
    UdpDeviceLink(const std::shared_ptr<core_UDP>& shared, LinkAddress::IpPort place,
                  bool broadcast)
        : CoreLink(
              shared, FieldSet::TextBody, broadcast ? QString() : place.host.toString(),
              [] { return QString(); },
              [to = shared.get(), broadcast](const QByteArray& bytes) {
                  broadcast ? to->sendUdpDataBroadcast(bytes) : to->sendUdpData(bytes);
              }),
          udp(shared.get()), host(place.host.toString()), port(place.port)
    {
    }

    void send(const Command& command) override
    {
        udp->setDeviceIP(host);
        udp->setPort(port);
        CoreLink::send(command);
    }

private:
    core_UDP* const udp;
    const QString host;
    const quint16 port;
};

class UdpTarget : public LinkTarget
{
public:
    explicit UdpTarget(const LinkAddress& written)
        : LinkTarget(written),
          device(written.ipPort(hasFixedPort() ? fixedPort : defaultDevicePort))
    {
        address.allowOptions({});
    }

    void check(const Command& command) const override
    {
        const int limit = datagramLimit - commandframe::textLength;
        Command unicast = command;
        unicast.record.sendMode = 0;
        LinkTarget::check(unicast);
        if (command.record.sendMode != 0 && command.record.arryDatablock.size() > limit) {
            throw BadInput("--block", QString("%1 bytes").arg(command.record.arryDatablock.size()),
                           QString("0 to %1 bytes in one broadcast").arg(limit));
        }
        if (command.record.sendMode != 0 && command.raw.size() > datagramLimit) {
            throw BadInput("--raw", QString("%1 bytes").arg(command.raw.size()),
                           QString("1 to %1 bytes in one broadcast").arg(datagramLimit));
        }
    }

    std::vector<LinkPlace> places() const override
    {
        LinkPlace place;
        place.host = device.host;
        place.port = device.port;
        place.localPort = linktargets::localUdpPort();
        return {place};
    }

    std::unique_ptr<DeviceLink> open(bool broadcast) const override
    {
        const QString host = device.host.toString();
        if (device.port == 0) {
            address.refuse("port", "0", "1 to 65535");
        }
        if (device.host == QHostAddress(QHostAddress::AnyIPv4)) {
            address.refuse("host", host, "the device's own address");
        }
        const QHostAddress target = broadcast ? QHostAddress(QHostAddress::Broadcast) : device.host;
        const QString reason = networkpath::obstacle(target, device.port);
        if (!reason.isEmpty()) {
            throw LinkDown(QString("%1: no way to %2: %3; is the network up?")
                               .arg(address.text, target.toString(), reason));
        }
        return std::make_unique<UdpDeviceLink>(openTransport(address.text), device, broadcast);
    }

    std::unique_ptr<Simulation> simulate(const SimulatedDevice::Settings& settings) const override
    {
        return std::make_unique<UdpSimulator>(device.host, device.port, settings);
    }

private:
    LinkAddress::IpPort device;
};

} // namespace

std::unique_ptr<LinkTarget> linktargets::udp(const LinkAddress& address)
{
    return std::make_unique<UdpTarget>(address);
}

quint16 linktargets::localUdpPort()
{
    return hasFixedPort() ? fixedPort : defaultLocalPort;
}
