// SPDX-License-Identifier: MIT
#pragma once

#include <QMetaMethod>
#include <QStringList>

/// The methods that a class itself declares, in order: signature, blank, parameter names.
inline QStringList ownMethods(const QMetaObject& metaObject)
{
    QStringList methods;
    for (int i = metaObject.methodOffset(); i < metaObject.methodCount(); ++i) {
        const QMetaMethod method = metaObject.method(i);
        methods << QString::fromLatin1(method.methodSignature()) + QLatin1Char(' ') +
                       QString::fromLatin1(method.parameterNames().join(','));
    }
    return methods;
}
