// SPDX-License-Identifier: MIT
#pragma once

#include <QAbstractSocket>

/// Why a simulated device cannot be where it is to be found.
namespace bindfailure
{

/// The reason, with what would help; \a otherwise where that is not known.
QString reason(QAbstractSocket::SocketError error, quint16 port, const QString& otherwise);

/// The same for what the system has called the reason, an errno value.
QString reason(int error, quint16 port);

} // namespace bindfailure
