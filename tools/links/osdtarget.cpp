// SPDX-License-Identifier: MIT
#include "osdtarget.h"

#include "commandfields.h"
#include "osddemo.h"
#include "osdlink.h"
#include "osdsimulation.h"
#include "toolerror.h"

#include <optional>

namespace
{

constexpr quint16 usualPort = 10001;

class OsdTarget final : public LinkTarget
{
public:
    explicit OsdTarget(const LinkAddress& address) { add(address); }

    FieldSet fields() const override { return FieldSet::OsdFrame; }

    Faulty faulty() const override { return Faulty::Endpoint; }

    void add(const LinkAddress& address) override
    {
        if (address.scheme != QLatin1String("osd")) {
            address.refuse(QStringLiteral("only osd:// links go together"));
        }
        address.allowOptions({QStringLiteral("data")});
        const LinkAddress::IpTarget target = address.ipTarget(usualPort);
        const QString ip = target.host.toString();
        for (const OsdLink::Endpoint& other : endpoints) {
            if (other.ip == ip) {
                address.refuse(QStringLiteral("%1 comes twice: an address has one endpoint, "
                                              "whatever its port")
                                   .arg(ip));
            }
        }
        text = address;
        endpoints.push_back({ip, target.port});
        if (address.options.contains(QStringLiteral("data"))) {
            dataLength = static_cast<int>(typed::number(
                QStringLiteral("data"), address.options.value(QStringLiteral("data")).toStdString(),
                0, typed::mostFile));
        }
    }

    void check(const Command& command) const override
    {
        if (command.record.sendMode != 0) {
            throw BadInput(QStringLiteral("--broadcast: osd:// has none: give every endpoint's "
                                          "link"));
        }
        for (const QString& ip : command.to) {
            if (std::none_of(endpoints.begin(), endpoints.end(),
                             [&ip](const OsdLink::Endpoint& known) { return known.ip == ip; })) {
                throw BadInput(
                    QStringLiteral("--to: \"%1\" is none of the endpoints: give the address of a "
                                   "link, without its port")
                        .arg(ip));
            }
        }
        for (const OsdLink::Endpoint& endpoint : endpoints) {
            if (endpoint.port == 0 || endpoint.ip == QLatin1String("0.0.0.0")) {
                throw BadInput(
                    QStringLiteral("\"osd://%1:%2\" is no endpoint: give its own address "
                                   "and a port from 1 to 65535")
                        .arg(endpoint.ip)
                        .arg(endpoint.port));
            }
        }
        if (dataLength) {
            text.refuse(QStringLiteral("?data is for simulate: leave it out"));
        }
    }

    std::unique_ptr<DeviceLink> open(bool /*broadcast*/) const override
    {
        check({});
        return std::make_unique<OsdLink>(endpoints);
    }

    std::unique_ptr<Simulation> simulate(const SimulatedDevice::Settings& settings) const override
    {
        SimulatedDevice::Settings chosen = settings;
        chosen.dataLength = dataLength;
        return std::make_unique<OsdSimulation>(QHostAddress(endpoints.front().ip),
                                               endpoints.front().port, chosen);
    }

private:
    LinkAddress text; // the last one
    std::vector<OsdLink::Endpoint> endpoints;
    std::optional<int> dataLength;
};

} // namespace

std::unique_ptr<LinkTarget> osdtarget::parse(const LinkAddress& address)
{
    return std::make_unique<OsdTarget>(address);
}

bool osdtarget::demonstrate(Narrator& narrator)
{
    return osddemo::run(narrator);
}
