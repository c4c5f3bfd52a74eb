// SPDX-License-Identifier: MIT
#include "linkaddress.h"

#include "toolerror.h"
#include "typed.h"

#include <limits>

#include <arpa/inet.h>

LinkAddress LinkAddress::parse(const QString& text)
{
    LinkAddress address;
    address.text = text;
    const QString separator = QStringLiteral("://");
    const int colon = text.indexOf(separator);
    if (colon < 1) {
        throw BadInput(QStringLiteral("link"), text,
                       QStringLiteral("an address like udp://192.168.1.20:1000"));
    }
    address.scheme = text.left(colon).toLower();
    const QString rest = text.mid(colon + separator.size());
    address.place = rest.section(QLatin1Char('?'), 0, 0);
    const QString query = rest.section(QLatin1Char('?'), 1);
    for (const QString& item : query.split(QLatin1Char('&'), Qt::SkipEmptyParts)) {
        const QString key = item.section(QLatin1Char('='), 0, 0);
        if (!item.contains(QLatin1Char('=')) || address.options.contains(key)) {
            address.refuse(QStringLiteral("options"), item,
                           QStringLiteral("each once, as key=value"));
        }
        address.options.insert(key, item.section(QLatin1Char('='), 1));
    }
    return address;
}

LinkAddress::IpPort LinkAddress::ipPort(quint16 defaultPort) const
{
    const QString ip = place.section(QLatin1Char(':'), 0, 0);
    in_addr valid{}; // more than four numbers, or fewer, are no address here
    if (inet_pton(AF_INET, ip.toLatin1().constData(), &valid) != 1) {
        refuse(QStringLiteral("host"), ip,
               QStringLiteral("an IPv4 address like 192.168.1.20; names are not looked up"));
    }
    IpPort found{QHostAddress(ip), defaultPort};
    if (ip != place) {
        found.port = static_cast<quint16>(typed::number(QStringLiteral("port of ") + text,
                                                        place.mid(ip.size() + 1), 0,
                                                        std::numeric_limits<quint16>::max()));
    }
    return found;
}

void LinkAddress::allowOptions(const QStringList& known) const
{
    for (const QString& option : options.keys()) {
        if (!known.contains(option)) {
            refuse(QStringLiteral("options"), option,
                   known.isEmpty() ? QStringLiteral("none") : known.join(QStringLiteral(", ")));
        }
    }
}

int LinkAddress::number(const char* option, int least, int most) const
{
    const QString name = QLatin1String(option);
    return static_cast<int>(typed::number(QStringLiteral("%1 of %2").arg(name, text),
                                          options.value(name), least, most));
}

int LinkAddress::choice(const char* option, const QStringList& choices, int otherwise) const
{
    const QString name = QLatin1String(option);
    const int index = choices.indexOf(options.value(name));
    if (options.contains(name) && index < 0) {
        refuse(name, options.value(name), choices.join(QStringLiteral(", ")));
    }
    return index < 0 ? otherwise : index;
}

void LinkAddress::refuse(const QString& part, const QString& value, const QString& expected) const
{
    throw BadInput(QStringLiteral("%1 of %2").arg(part, text), value, expected);
}
