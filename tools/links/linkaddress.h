// SPDX-License-Identifier: MIT
#pragma once

#include <QHostAddress>
#include <QMap>
#include <QString>

/// A link as a person writes it: scheme://target?key=value&key=value.
struct LinkAddress {
    QString text;   ///< as written
    QString scheme; ///< lower case
    QString target; ///< what follows "://" up to "?": a host and port, a path, two ids
    QMap<QString, QString> options;

    /// Cuts the text. Throws BadInput if it has not this form, or if an option comes twice.
    static LinkAddress parse(const QString& text);

    /// A target of the form ADDRESS or ADDRESS:PORT.
    struct IpTarget {
        QHostAddress host;
        quint16 port;
    };

    /// The target as a dotted IPv4 address and a port, 0 to 65535; throws BadInput.
    IpTarget ipTarget(quint16 usualPort) const;

    /// BadInput, saying that this address is wrong in this way.
    [[noreturn]] void refuse(const QString& reason) const;

    /// Refuses every option that is not among these.
    void allowOptions(const QStringList& known) const;
};
