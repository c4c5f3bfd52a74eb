// SPDX-License-Identifier: MIT
#include "linkregistry.h"

#include "links/osdendpoint.h"
#include "links/serialendpoint.h"
#include "links/udpendpoint.h"
#include "toolerror.h"

const std::vector<LinkKind>& linkregistry::kinds()
{
    static const std::vector<LinkKind> table{
        {"udp", "udp://192.168.1.20:1000", "a device on the network", udpendpoint::parse,
         udpendpoint::demonstrate},
        {"serial", "serial:///dev/ttyUSB0?baud=115200", "a device on a serial port",
         serialendpoint::parse, serialendpoint::demonstrate},
        {"vela", "vela:///dev/ttyS1", "a device of the second serial line",
         serialendpoint::parseVela, serialendpoint::demonstrateVela},
        {"usb", "usb://04b4:1008", "a USB HID device", nullptr, nullptr},
        {"osd", "osd://10.0.0.5:10001", "an on-screen-display endpoint; may be several",
         osdendpoint::parse, osdendpoint::demonstrate},
    };
    return table;
}

std::unique_ptr<Endpoint> linkregistry::endpoint(const QString& text)
{
    const LinkAddress address = LinkAddress::parse(text);
    QStringList built;
    for (const LinkKind& kind : kinds()) {
        if (address.scheme == QLatin1String(kind.scheme) && kind.parse != nullptr) {
            return kind.parse(address);
        }
        if (address.scheme == QLatin1String(kind.scheme)) {
            address.refuse(
                QStringLiteral("%1:// is not built into this version").arg(address.scheme));
        }
        if (kind.parse != nullptr) {
            built << QLatin1String(kind.form);
        }
    }
    address.refuse(QStringLiteral("there is no link \"%1\": write %2")
                       .arg(address.scheme, built.join(QStringLiteral(" or "))));
}

std::unique_ptr<Endpoint> linkregistry::endpoint(const QStringList& texts)
{
    auto first = endpoint(texts.front());
    for (const QString& another : texts.mid(1)) {
        first->add(LinkAddress::parse(another));
    }
    return first;
}

void Endpoint::add(const LinkAddress& another)
{
    another.refuse(QStringLiteral("only osd:// takes several links at once"));
}

QString linkregistry::help()
{
    QString text;
    for (const LinkKind& kind : kinds()) {
        text +=
            QStringLiteral("  %1 %2%3\n")
                .arg(QLatin1String(kind.form), -36)
                .arg(QLatin1String(kind.describes),
                     kind.parse == nullptr ? QStringLiteral(" (not in this version)") : QString());
    }
    return text;
}
