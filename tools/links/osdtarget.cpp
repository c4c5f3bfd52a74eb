// SPDX-License-Identifier: MIT
#include "linkregistry.h"
#include "osdframe.h"
#include "osdlink.h"
#include "osdsimulation.h"
#include "toolerror.h"
#include "typed.h"

#include <algorithm>
#include <optional>

namespace
{

constexpr quint16 defaultPort = 10001;

class OsdTarget final : public LinkTarget
{
public:
    explicit OsdTarget(const LinkAddress& written) : LinkTarget(written) { add(written); }

    void add(const LinkAddress& another) override
    {
        if (another.scheme != address.scheme) {
            throw BadInput("link", another.text, "only osd:// links together");
        }
        another.allowOptions({"data"});
        const LinkAddress::IpPort place = another.ipPort(defaultPort);
        const QString ip = place.host.toString();
        if (addresses().contains(ip)) {
            another.refuse("host", ip, "each address once, whatever its port");
        }
        endpoints.push_back({ip, place.port});
        if (another.has("data")) {
            dataLength = another.number("data", 0, typed::fileLimit);
        }
    }

    void check(const Command& command) const override
    {
        if (command.record.sendMode != 0) {
            throw BadInput("--broadcast: osd:// has none: give every endpoint's "
                           "link");
        }
        for (const QString& ip : command.to) {
            if (!addresses().contains(ip)) {
                throw BadInput("--to", ip, addresses().join(", "));
            }
        }
        for (const OsdLink::Endpoint& endpoint : endpoints) {
            if (endpoint.port == 0 || endpoint.ip == "0.0.0.0") {
                throw BadInput("link", QString("osd://%1:%2").arg(endpoint.ip).arg(endpoint.port),
                               "the endpoint's own address and a port from 1 to 65535");
            }
        }
        const int least = osdframe::headLength + osdframe::tailLength;
        if (!command.raw.isEmpty() && command.raw.size() < least) {
            throw BadInput("--raw", QString("%1 bytes").arg(command.raw.size()),
                           QString("at least %1 bytes on osd://").arg(least));
        }
        if (dataLength) {
            throw BadInput("?data is for simulate: leave it out");
        }
    }

    std::vector<LinkPlace> places() const override
    {
        std::vector<LinkPlace> all;
        for (const OsdLink::Endpoint& endpoint : endpoints) {
            LinkPlace place;
            place.device = endpoint.ip;
            place.host = QHostAddress(endpoint.ip);
            place.port = endpoint.port;
            all.push_back(place);
        }
        return all;
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
    QStringList addresses() const
    {
        QStringList ips;
        for (const OsdLink::Endpoint& endpoint : endpoints) {
            ips << endpoint.ip;
        }
        return ips;
    }

    std::vector<OsdLink::Endpoint> endpoints;
    std::optional<int> dataLength;
};

} // namespace

std::unique_ptr<LinkTarget> linktargets::osd(const LinkAddress& address)
{
    return std::make_unique<OsdTarget>(address);
}
