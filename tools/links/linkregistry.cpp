// SPDX-License-Identifier: MIT
#include "linkregistry.h"

#include "osdtarget.h"
#include "serialtarget.h"
#include "toolerror.h"
#include "udptarget.h"
#include "usbtarget.h"

const std::vector<LinkKind>& linkregistry::kinds()
{
    static const std::vector<LinkKind> table{
        {"udp", "udp://192.168.1.20:1000", "a device on the network", udptarget::parse,
         udptarget::demonstrate},
        {"serial", "serial:///dev/ttyUSB0?baud=115200", "a device on a serial port",
         serialtarget::parse, serialtarget::demonstrate},
        {"vela", "vela:///dev/ttyS1", "a device of the second serial line", serialtarget::parseVela,
         serialtarget::demonstrateVela},
        {"usb", "usb://04b4:1008", "a USB HID device", usbtarget::parse, usbtarget::demonstrate},
        {"osd", "osd://10.0.0.5:10001", "an on-screen-display endpoint; may be several",
         osdtarget::parse, osdtarget::demonstrate},
    };
    return table;
}

std::unique_ptr<LinkTarget> linkregistry::target(const QString& text)
{
    const LinkAddress address = LinkAddress::parse(text);
    QStringList forms;
    for (const LinkKind& kind : kinds()) {
        if (address.scheme == QLatin1String(kind.scheme)) {
            return kind.parse(address);
        }
        forms << QLatin1String(kind.form);
    }
    address.refuse(QStringLiteral("there is no link \"%1\": write %2")
                       .arg(address.scheme, forms.join(QStringLiteral(" or "))));
}

std::unique_ptr<LinkTarget> linkregistry::target(const QStringList& texts)
{
    auto first = target(texts.front());
    for (const QString& another : texts.mid(1)) {
        first->add(LinkAddress::parse(another));
    }
    return first;
}

void LinkTarget::add(const LinkAddress& another)
{
    another.refuse(QStringLiteral("only osd:// takes several links at once"));
}

QString linkregistry::help()
{
    QString text;
    for (const LinkKind& kind : kinds()) {
        text += QStringLiteral("  %1 %2\n")
                    .arg(QLatin1String(kind.form), -36)
                    .arg(QLatin1String(kind.describes));
    }
    return text;
}
