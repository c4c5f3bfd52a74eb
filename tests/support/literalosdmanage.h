// SPDX-License-Identifier: MIT
#pragma once

#include "model_osdparam.h"

#include <QMap>
#include <QObject>

class LiteralOsdSocket;

/// The manager of LiteralOsdSocket, written down just as plainly.
class LiteralOsdManage : public QObject
{
    Q_OBJECT

public:
    LiteralOsdManage();
    ~LiteralOsdManage() override;

    void openClient(QString ip, int port);
    void closeClient(QString ip);
    void sendDatatoDevice(void* parameters);

Q_SIGNALS:
    void sigSendDatatoDevice(model_OsdParam parameters);

private:
    QMap<QString, LiteralOsdSocket*> mapClients;
};
