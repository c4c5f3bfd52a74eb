// SPDX-License-Identifier: MIT
#include "core_osd_manage.h"

#include "callerrecord.h"
#include "core_osd_tcpsocket.h"
#include "osdrecordsource.h"

core_Osd_Manage::core_Osd_Manage()
{
    qRegisterMetaType<model_OsdParam>("model_OsdParam");
    osdrecordsource::add(this);
}

core_Osd_Manage::~core_Osd_Manage()
{
    osdrecordsource::remove(this);
    // While this is still whole: workers that end meanwhile look at the sender of what they hear.
    disconnect(this, &core_Osd_Manage::sigSendDatatoDevice, nullptr, nullptr);
    qDeleteAll(mapClients);
}

void core_Osd_Manage::openClient(QString ip, int port)
{
    if (mapClients.contains(ip)) {
        return;
    }
    auto* const client = new Core_Osd_TcpSocket(nullptr);
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
