// SPDX-License-Identifier: MIT
#pragma once

#include "core_manage_export.h"
#include "icoreosdbase.h"
#include "model_osdparam.h"

#include <QMap>
#include <QString>

class Core_Osd_TcpSocket;

/// The on-screen-display endpoints of one host: a TCP client for each address text. A record is
/// offered to all of them; the one whose address it carries sends it.
///
/// Records reach only endpoints that were opened while their manager was the factory's shared one;
/// another manager's endpoints listen to the shared one too. All operations belong to one thread.
class CORE_MANAGE_EXPORT core_Osd_Manage : public ICoreOsdBase
{
    Q_OBJECT

public:
    core_Osd_Manage();

    /// Closes every endpoint, one after the other, as closeClient does.
    ~core_Osd_Manage() override;

    /// Opens a client to one endpoint and returns at once. Does nothing if there is one under this
    /// very text, whatever its port and even if its connection is lost: closeClient comes first.
    void openClient(QString ip, int port) override;

    /// Closes the client under this very text, if there is one. Takes 100 ms, plus up to 3000 ms
    /// until the system has taken what is still pending, plus up to 500 ms for its thread.
    void closeClient(QString ip) override;

Q_SIGNALS:
    /// A record for the endpoints. They take it on their own threads.
    void sigSendDatatoDevice(model_OsdParam parameters);

public Q_SLOTS:
    /// Emits sigSendDatatoDevice with a copy of the model_OsdParam behind the pointer and returns
    /// at once; a null pointer is ignored. A record that no connected endpoint takes is dropped.
    void sendDatatoDevice(void* parameters) override;

private:
    QMap<QString, Core_Osd_TcpSocket*> mapClients; // owned
};
