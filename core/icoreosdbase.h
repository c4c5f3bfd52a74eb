// SPDX-License-Identifier: MIT
#pragma once

#include "core_manage_export.h"
#include "hostcontract.h"
#include "linkobserver.h"

#include <QObject>
#include <QString>

/// The on-screen-display endpoints, each a TCP client keyed by its address text. Acknowledgements
/// come back through biz_Osd_CMDSWork::addToReceiveQueue.
///
/// All operations belong to one thread, which needs no event loop. Nothing is thrown, and nothing
/// reports that a connection failed or was lost: acknowledgements are missing then.
class CORE_MANAGE_EXPORT ICoreOsdBase : public QObject, public ObservableLink
{
    Q_OBJECT

public:
    ICoreOsdBase();
    ~ICoreOsdBase() override;

    /// Opens a client to one endpoint; does nothing if \a ip is open already. \a ip is an IPv4 or
    /// IPv6 address, \a port 1 to 65535, used modulo 65536. Does not wait for the connection.
    virtual void openClient(QString ip, int port) = 0;

    /// Closes the client of that address, if there is one. Takes 100 ms, plus up to 3000 ms until
    /// the system has taken what is pending, plus up to 500 ms for its thread.
    virtual void closeClient(QString ip) = 0;

public Q_SLOTS:
    /// Offers one command to every endpoint; the one whose address is the record's strIP sends it.
    /// \a parameters points to a model_OsdParam that is copied before the call returns; null is
    /// ignored. Does not wait. A record for an endpoint that is not connected is dropped.
    virtual void sendDatatoDevice(void* parameters) = 0;
};
