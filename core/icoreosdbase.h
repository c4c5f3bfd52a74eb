// SPDX-License-Identifier: MIT
#pragma once

#include "core_manage_export.h"

#include <QObject>
#include <QString>

/// The on-screen-display endpoints, each a TCP client keyed by its address text. Acknowledgements
/// come back through biz_Osd_CMDSWork::addToReceiveQueue. All operations belong to one thread.
class CORE_MANAGE_EXPORT ICoreOsdBase : public QObject
{
    Q_OBJECT

public:
    ICoreOsdBase();
    ~ICoreOsdBase() override;

    /// Opens a client to one endpoint; does nothing if the address is already open. Does not wait
    /// for the connection.
    virtual void openClient(QString ip, int port) = 0;

    /// Closes the client of that address, if there is one.
    virtual void closeClient(QString ip) = 0;

public Q_SLOTS:
    /// Offers one command to every endpoint; the one whose address is the record's strIP sends it.
    /// \a parameters points to a model_OsdParam that is copied before the call returns.
    virtual void sendDatatoDevice(void* parameters) = 0;
};
