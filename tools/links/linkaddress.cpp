// SPDX-License-Identifier: MIT
#include "linkaddress.h"

#include "toolerror.h"
#include "typed.h"

#include <limits>

#include <arpa/inet.h>

LinkAddress LinkAddress::parse(const QString& text)
{
    const QString separator = "://";
    if (text.startsWith("/dev/hidraw")) {
        throw BadInput("link", text, "usb://VENDOR:PRODUCT; coremanage devices lists them");
    }
    if (text.startsWith("/dev/") && !text.contains(separator)) {
        return parse("serial://" + text);
    }
    LinkAddress address;
    address.text = text;
    const auto colon = text.indexOf(separator);
    if (colon < 1) {
        throw BadInput("link", text, "an address like udp://192.168.1.20:1000");
    }
    address.scheme = text.left(colon).toLower();
    const QString rest = text.mid(colon + separator.size());
    address.place = rest.section('?', 0, 0);
    const QString query = rest.section('?', 1);
    for (const QString& item : query.split('&', Qt::SkipEmptyParts)) {
        const QString key = item.section('=', 0, 0);
        if (!item.contains('=') || address.options.contains(key)) {
            address.refuse("options", item, "each once, as key=value");
        }
        address.options.insert(key, item.section('=', 1));
    }
    return address;
}

LinkAddress::IpPort LinkAddress::ipPort(quint16 defaultPort) const
{
    const QString ip = place.section(':', 0, 0);
    in_addr valid{}; // more than four numbers, or fewer, are no address here
    if (inet_pton(AF_INET, ip.toLatin1().constData(), &valid) != 1) {
        refuse("host", ip, "an IPv4 address like 192.168.1.20; names are not looked up");
    }
    IpPort found{QHostAddress(ip), defaultPort};
    if (ip != place) {
        found.port = static_cast<quint16>(typed::number("port of " + text, place.mid(ip.size() + 1),
                                                        0, std::numeric_limits<quint16>::max()));
    }
    return found;
}

void LinkAddress::allowOptions(const QStringList& known) const
{
    for (const QString& option : options.keys()) {
        if (!known.contains(option)) {
            refuse("options", option, known.isEmpty() ? "none" : known.join(", "));
        }
    }
}

int LinkAddress::number(const char* option, int least, int most) const
{
    const QString name = QLatin1String(option);
    return static_cast<int>(
        typed::number(QString("%1 of %2").arg(name, text), options.value(name), least, most));
}

int LinkAddress::choice(const char* option, const QStringList& choices, int otherwise) const
{
    const QString name = QLatin1String(option);
    const auto index = choices.indexOf(options.value(name));
    if (options.contains(name) && index < 0) {
        refuse(name, options.value(name), choices.join(", "));
    }
    return index < 0 ? otherwise : static_cast<int>(index);
}

void LinkAddress::refuse(const QString& part, const QString& value, const QString& expected) const
{
    throw BadInput(QString("%1 of %2").arg(part, text), value, expected);
}
