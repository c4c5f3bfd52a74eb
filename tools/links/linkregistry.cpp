// SPDX-License-Identifier: MIT
#include "linkregistry.h"

#include "toolerror.h"

#include <algorithm>

const std::vector<LinkKind>& linkregistry::kinds()
{
    constexpr int burst = 200;
    constexpr int reportBurst = 20; // ten reports a second are read
    static const std::vector<LinkKind> table{
        {"udp", "udp://192.168.1.20:1000", "a device on the network", FieldSet::TextBody,
         Faulty::Datagrams, "udp://127.0.0.1:0", burst, linktargets::udp},
        {"serial", "serial:///dev/ttyUSB0?baud=115200", "a device on a serial port",
         FieldSet::TextBody, Faulty::Stream, "serial://", burst, linktargets::serial},
        {"vela", "vela:///dev/ttyS1", "a device of the second serial line", FieldSet::BinaryHead,
         Faulty::Stream, "vela://", burst, linktargets::serial},
        {"usb", "usb://04b4:1008", "a USB HID device", FieldSet::TextBody, Faulty::Stream,
         "usb://04b4:1008", reportBurst, linktargets::usb},
        {"osd", "osd://10.0.0.5:10001", "an on-screen-display endpoint; may be several",
         FieldSet::OsdFrame, Faulty::Endpoint, "osd://127.0.0.1:0", 0, linktargets::osd},
    };
    return table;
}

namespace
{

// Null if there is none.
const LinkKind* kindOf(const LinkAddress& address)
{
    const auto& kinds = linkregistry::kinds();
    const auto found = std::find_if(kinds.begin(), kinds.end(), [&address](const LinkKind& kind) {
        return address.scheme == QLatin1String(kind.scheme);
    });
    return found == kinds.end() ? nullptr : &*found;
}

} // namespace

std::unique_ptr<LinkTarget> linkregistry::target(const QString& text)
{
    const LinkAddress address = LinkAddress::parse(text);
    if (const LinkKind* kind = kindOf(address)) {
        return kind->parse(address);
    }
    QStringList forms;
    for (const LinkKind& kind : kinds()) {
        forms << QLatin1String(kind.form);
    }
    throw BadInput("link", text, forms.join(" or "));
}

std::unique_ptr<LinkTarget> linkregistry::target(const QStringList& texts)
{
    auto first = target(texts.front());
    for (const QString& another : texts.mid(1)) {
        first->add(LinkAddress::parse(another));
    }
    return first;
}

QString linkregistry::help()
{
    QString text;
    for (const LinkKind& kind : kinds()) {
        text += QString("  %1 %2\n")
                    .arg(QLatin1String(kind.form), -36)
                    .arg(QLatin1String(kind.describes));
    }
    return text;
}

const LinkKind& LinkTarget::kind() const
{
    return *kindOf(address);
}

void LinkTarget::add(const LinkAddress& another)
{
    throw BadInput("link", another.text, "one link; only osd:// takes several at once");
}

void LinkTarget::check(const Command& command) const
{
    if (command.record.sendMode != 0) {
        throw BadInput(QString("--broadcast: %1:// has none: leave it out").arg(address.scheme));
    }
    if (!command.to.isEmpty()) {
        throw BadInput("--to: only osd:// has several endpoints: leave it out");
    }
}
