// SPDX-License-Identifier: MIT
#include "linkaddress.h"

#include "toolerror.h"

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
