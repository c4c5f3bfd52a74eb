// SPDX-License-Identifier: MIT
#pragma once

#include "devicelink.h"
#include "linkaddress.h"
#include "simulation.h"

#include <memory>

class Narrator;

/// What an address designates, checked; nothing is open yet.
class LinkTarget
{
public:
    virtual ~LinkTarget() = default;

    /// Takes another address of the same link. Throws BadInput; every link but osd:// has one.
    virtual void add(const LinkAddress& another);

    /// Which fields its commands have.
    virtual FieldSet fields() const = 0;

    /// Whose faults its simulated device can show.
    virtual Faulty faulty() const = 0;

    /// Throws BadInput if this command cannot go over this link. Nothing is opened.
    virtual void check(const Command& command) const = 0;

    /// Opens the link to a device, or to all of them. Throws LinkDown, or BadInput if this very
    /// address cannot be opened.
    virtual std::unique_ptr<DeviceLink> open(bool broadcast) const = 0;

    /// Puts a simulated device there; it does not serve yet. Throws BadInput if that cannot be.
    virtual std::unique_ptr<Simulation>
    simulate(const SimulatedDevice::Settings& settings) const = 0;
};

/// One scheme of link addresses. Every link adds one row to the table and one file.
struct LinkKind {
    const char* scheme;
    const char* form;      ///< what a right address looks like
    const char* describes; ///< what is behind it
    /// The target of an address with this scheme; throws BadInput.
    std::unique_ptr<LinkTarget> (*parse)(const LinkAddress& address);
    /// Shows the link at work with a simulated device.
    bool (*demonstrate)(Narrator& narrator);
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
