// SPDX-License-Identifier: MIT
#pragma once

#include <QHostAddress>
#include <QMap>
#include <QString>
#include <QStringList>

/// A link as a person writes it: scheme://place?key=value&key=value. What is wrong with it throws
/// BadInput.
struct LinkAddress {
    QString text;   ///< as written
    QString scheme; ///< lower case
    QString place;  ///< what follows "://" up to "?": a host and port, a path, two ids
    QMap<QString, QString> options;

    /// Cuts the text. A path in /dev is one of serial://. Refuses another form, and an option that
    /// comes twice.
    static LinkAddress parse(const QString& text);

    struct IpPort {
        QHostAddress host;
        quint16 port;
    };

    /// The place as a dotted IPv4 address and a port, 0 to 65535, if one is given.
    IpPort ipPort(quint16 defaultPort) const;

    /// Refuses every option that is not among these.
    void allowOptions(const QStringList& known) const;

    bool has(const char* option) const { return options.contains(QLatin1String(option)); }

    /// The value of an option that is there, a number in this range.
    int number(const char* option, int least, int most) const;

    /// The place among \a choices of the option's value; \a otherwise if the option is not there.
    int choice(const char* option, const QStringList& choices, int otherwise) const;

    /// Throws BadInput: a part of this address has a wrong value.
    [[noreturn]] void refuse(const QString& part, const QString& value,
                             const QString& expected) const;
};
