// SPDX-License-Identifier: MIT
#include "outcome.h"

#include "recordtext.h"

#include <QJsonArray>

QString Outcome::notTaken(const QString& link)
{
    return QString("%1: the system did not take it: not sent; is the network up, the device "
                   "there?")
        .arg(link);
}

QString Outcome::silence(const QString& link, qint64 timeoutMs, qint64 tries)
{
    const QString text = QString("%1: no reply within %2 ms").arg(link).arg(timeoutMs);
    return tries > 1 ? text + QString(", %1 tries").arg(tries) : text;
}

QJsonObject Outcome::json(const QString& link, const Command& command, FieldSet fields) const
{
    QJsonArray array;
    for (const Reply& reply : replies) {
        array.append(reply.json);
    }
    QJsonObject framed;
    if (command.raw.isEmpty()) {
        framed = recordtext::json(recordtext::framed(command, fields), fields);
    }
    framed.insert("frame", QString::fromLatin1(recordtext::frame(command, fields).toHex()));
    return {{"link", link},
            {"tries", tries},
            {"elapsed_ms", elapsedMs},
            {"sent", framed},
            {"replies", array}};
}
