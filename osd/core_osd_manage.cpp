// SPDX-License-Identifier: MIT
#include "core_osd_manage.h"

#include "callerrecord.h"
#include "core_osd_tcpsocket.h"
#include "osdrecords.h"

core_Osd_Manage::core_Osd_Manage()
{
    qRegisterMetaType<model_OsdParam>("model_OsdParam");
}

core_Osd_Manage::~core_Osd_Manage()
{
    OsdRecords::end(this); // while it is still whole: endpoints may begin on other threads
    qDeleteAll(mapClients);
}

void core_Osd_Manage::openClient(QString ip, int port)
{
    if (mapClients.contains(ip)) {
        return;
    }
    auto* const client = new Core_Osd_TcpSocket(nullptr);
    client->shareObservers(tap);
    client->connectSever(ip, port);
    mapClients.insert(ip, client);
}

void core_Osd_Manage::closeClient(QString ip)
{
    delete mapClients.take(ip);
}

void core_Osd_Manage::sendDatatoDevice(void* parameters)
{
    if (const auto record = callerRecord<model_OsdParam>(parameters)) {
        Q_EMIT sigSendDatatoDevice(*record);
    }
}
