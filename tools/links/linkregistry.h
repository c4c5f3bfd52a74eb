// SPDX-License-Identifier: MIT
#pragma once

#include "devicelink.h"
#include "linkaddress.h"
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

/// udp://ADDRESS:PORT, a device on the network. The port may be left out.
///
/// Replies come to one local port, which is fixed and which only one program can have at a time:
/// the library stays silent if it is taken, so the tool looks.
namespace udptarget
{

std::unique_ptr<LinkTarget> parse(const LinkAddress& address);

/// The local port that replies come to, for the host-wide device type.
quint16 localPort();

} // namespace udptarget

/// serial://PORT?baud=115200&data=8&parity=none&stop=1&flow=none, a device on a serial port, and
/// vela:// alike, a device of the second serial line. A simulated one needs no PORT: it gets one.
namespace serialtarget
{

std::unique_ptr<LinkTarget> parse(const LinkAddress& address);

/// Why this user cannot open a device file, with what would help; empty if he can.
QString obstacle(const QString& devicePath);

} // namespace serialtarget

/// usb://VENDOR:PRODUCT, the first USB HID device with these ids, four hexadecimal digits each.
namespace usbtarget
{

std::unique_ptr<LinkTarget> parse(const LinkAddress& address);

} // namespace usbtarget

/// osd://ADDRESS:PORT, an on-screen-display endpoint; several of them make one link. The port may
/// be left out. A simulated one takes ?data=N, the bytes of data in each command: commands carry no
/// length.
namespace osdtarget
{

std::unique_ptr<LinkTarget> parse(const LinkAddress& address);

} // namespace osdtarget
