// SPDX-License-Identifier: MIT
#pragma once

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

    /// BadInput, saying that this address is wrong in this way.
    [[noreturn]] void refuse(const QString& reason) const;

    /// Refuses every option that is not among these.
    void allowOptions(const QStringList& known) const;
};
