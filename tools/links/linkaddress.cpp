// SPDX-License-Identifier: MIT
#include "linkaddress.h"

#include "decimal.h"
#include "toolerror.h"

#include <QRegularExpression>

#include <limits>

LinkAddress LinkAddress::parse(const QString& text)
{
    LinkAddress address;
    address.text = text;
    const QString separator = QStringLiteral("://");
    const int colon = text.indexOf(separator);
    if (colon < 1) {
        address.refuse(QStringLiteral("a link is written like udp://192.168.1.20:1000"));
    }
    address.scheme = text.left(colon).toLower();
    const QString rest = text.mid(colon + separator.size());
    address.target = rest.section(QLatin1Char('?'), 0, 0);
    const QString query = rest.section(QLatin1Char('?'), 1);
    for (const QString& item : query.split(QLatin1Char('&'), Qt::SkipEmptyParts)) {
        const QString key = item.section(QLatin1Char('='), 0, 0);
        if (!item.contains(QLatin1Char('=')) || address.options.contains(key)) {
            address.refuse(
                QStringLiteral("\"%1\" is no option: write each once, as key=value").arg(item));
        }
        address.options.insert(key, item.section(QLatin1Char('='), 1));
    }
    return address;
}

LinkAddress::IpTarget LinkAddress::ipTarget(quint16 usualPort) const
{
    static const QRegularExpression dotted(QRegularExpression::anchoredPattern(
        QStringLiteral("(0|[1-9][0-9]{0,2})(\\.(0|[1-9][0-9]{0,2})){3}")));
    const int colon = target.indexOf(QLatin1Char(':'));
    const QString ip = target.left(colon);
    const QHostAddress host(ip);
    if (!dotted.match(ip).hasMatch() || host.protocol() != QAbstractSocket::IPv4Protocol) {
        refuse(QStringLiteral("\"%1\" is no IPv4 address: write %2://192.168.1.20:%3 (names are "
                              "not looked up)")
                   .arg(ip, scheme)
                   .arg(usualPort));
    }
    if (colon < 0) {
        return {host, usualPort};
    }
    const QString written = target.mid(colon + 1);
    const int port = decimal(written).value_or(-1);
    if (port < 0 || port > std::numeric_limits<quint16>::max()) {
        refuse(QStringLiteral("\"%1\" is no port: give a number from 1 to 65535").arg(written));
    }
    return {host, static_cast<quint16>(port)};
}

void LinkAddress::refuse(const QString& reason) const
{
    throw BadInput(QStringLiteral("\"%1\": %2").arg(text, reason));
}

void LinkAddress::allowOptions(const QStringList& known) const
{
    for (auto option = options.begin(); option != options.end(); ++option) {
        if (!known.contains(option.key())) {
            const QString right = known.isEmpty()
                                      ? QStringLiteral("%1:// takes no options").arg(scheme)
                                      : QStringLiteral("%1:// takes %2")
                                            .arg(scheme, known.join(QStringLiteral(", ")));
            refuse(QStringLiteral("unknown option \"%1\": %2").arg(option.key(), right));
        }
    }
}
