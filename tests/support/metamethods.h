// SPDX-License-Identifier: MIT
#pragma once

#include <QMetaMethod>
#include <QStringList>

/// The methods that a class itself declares, in order: kind, signature, parameter names, with a
/// blank between them. All must be public.
inline QStringList ownMethods(const QMetaObject& metaObject)
{
    QStringList methods;
    for (int i = metaObject.methodOffset(); i < metaObject.methodCount(); ++i) {
        const QMetaMethod method = metaObject.method(i);
        const char* const access = method.access() == QMetaMethod::Public ? "" : "hidden ";
        const char* const kind = method.methodType() == QMetaMethod::Signal ? "signal "
                                 : method.methodType() == QMetaMethod::Slot ? "slot "
                                                                            : "method ";
        methods << (QByteArray(access) + kind + method.methodSignature() + ' ' +
                    method.parameterNames().join(','));
    }
    return methods;
}
