// SPDX-License-Identifier: MIT
#pragma once

#include "devicelink.h"
#include "linkaddress.h"
#include "linkplace.h"
#include "simulation.h"

#include <memory>

struct LinkKind;

/// What an address designates, checked; nothing is open yet.
class LinkTarget
{
public:
    virtual ~LinkTarget() = default;

    const LinkKind& kind() const;

    /// Takes another address of the same link. Throws BadInput; every link but osd:// has one.
    virtual void add(const LinkAddress& another);

    /// Throws BadInput if this command cannot go over this link. Nothing is opened.
    virtual void check(const Command& command) const;

    /// Where this machine meets each of its devices.
    virtual std::vector<LinkPlace> places() const = 0;

    /// Opens the link to a device, or to all of them. Throws LinkDown, or BadInput if this very
    /// address cannot be opened.
    virtual std::unique_ptr<DeviceLink> open(bool broadcast) const = 0;

    /// Why this program cannot simulate such a device; empty if it can.
    virtual QString simulationObstacle() const { return {}; }

    /// Puts a simulated device there; it does not serve yet. Throws LinkDown if that cannot be.
    virtual std::unique_ptr<Simulation>
    simulate(const SimulatedDevice::Settings& settings) const = 0;

protected:
    explicit LinkTarget(LinkAddress written) : address(std::move(written)) {}

    LinkAddress address; ///< osd:// the first one
};

/// One scheme of link addresses. A link adds one file and one row to the table.
struct LinkKind {
    const char* scheme;
    const char* form;      ///< what a right address looks like
    const char* describes; ///< what is behind it
    FieldSet fields;       ///< of its commands
    Faulty faulty;         ///< whose faults its simulated device can show
    const char* demoLink;  ///< where the demo simulates one
    int demoBurst;         ///< commands that the demo sends as fast as they go
    /// The target of an address with this scheme; throws BadInput.
    std::unique_ptr<LinkTarget> (*parse)(const LinkAddress& address);
};

namespace linkregistry
{

/// The target that a text designates, or several texts together. Throws BadInput.
std::unique_ptr<LinkTarget> target(const QString& text);
std::unique_ptr<LinkTarget> target(const QStringList& texts);

/// Every kind of link.
const std::vector<LinkKind>& kinds();

/// One line for each kind of link, for a help text.
QString help();

} // namespace linkregistry

/// The targets that the registry knows. Each throws BadInput.
///
/// | scheme       | place            |                                                            |
/// |--------------|------------------|------------------------------------------------------------|
/// | udp          | ADDRESS[:PORT]   | a device on the network                                    |
/// | serial, vela | PORT             | ?baud=115200&data=8&parity=none&stop=1&flow=none; a        |
/// |              |                  | simulated one needs no PORT: it gets one                   |
/// | usb          | VENDOR:PRODUCT   | the first HID device with these ids, four hex digits each  |
/// | osd          | ADDRESS[:PORT]   | an on-screen-display endpoint; several make one link; a    |
/// |              |                  | simulated one takes ?data=N, the bytes of data in each     |
/// |              |                  | command: commands carry no length                          |
namespace linktargets
{

std::unique_ptr<LinkTarget> udp(const LinkAddress& address);
std::unique_ptr<LinkTarget> serial(const LinkAddress& address);
std::unique_ptr<LinkTarget> usb(const LinkAddress& address);
std::unique_ptr<LinkTarget> osd(const LinkAddress& address);

/// The local port that UDP replies come to, for the host-wide device type. Only one program can
/// have it at a time: the library stays silent if it is taken, so the tool looks.
quint16 localUdpPort();

} // namespace linktargets
