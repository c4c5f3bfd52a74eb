// SPDX-License-Identifier: MIT
#include "bindfailure.h"

#include <cerrno>
#include <cstring>

QString bindfailure::reason(QAbstractSocket::SocketError error, quint16 port,
                            const QString& otherwise)
{
    switch (error) {
    case QAbstractSocket::AddressInUseError:
        return QStringLiteral("port %1 is taken: give another one, or 0 for a free one").arg(port);
    case QAbstractSocket::SocketAccessError:
        return QStringLiteral("port %1 is for root: give one from 1024 on, or 0 for a free one")
            .arg(port);
    case QAbstractSocket::SocketAddressNotAvailableError:
        return QStringLiteral("this machine has not that address: give one of its own, or "
                              "127.0.0.1");
    default:
        return otherwise;
    }
}

QString bindfailure::reason(int error, quint16 port)
{
    const auto known = error == EADDRINUSE      ? QAbstractSocket::AddressInUseError
                       : error == EACCES        ? QAbstractSocket::SocketAccessError
                       : error == EADDRNOTAVAIL ? QAbstractSocket::SocketAddressNotAvailableError
                                                : QAbstractSocket::UnknownSocketError;
    return reason(known, port, QString::fromLocal8Bit(std::strerror(error)));
}
