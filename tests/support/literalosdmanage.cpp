// SPDX-License-Identifier: MIT
#include "literalosdmanage.h"

#include "literalosdsocket.h"

LiteralOsdManage::LiteralOsdManage()
{
    qRegisterMetaType<model_OsdParam>("model_OsdParam");
}

LiteralOsdManage::~LiteralOsdManage()
{
    for (const QString& ip : mapClients.keys()) {
        delete mapClients.value(ip);
    }
    mapClients.clear();
}

void LiteralOsdManage::openClient(QString ip, int port)
{
    if (!mapClients.contains(ip)) {
        auto* const client = new LiteralOsdSocket(this);
        client->connectSever(ip, port);
        mapClients.insert(ip, client);
    }
}

void LiteralOsdManage::closeClient(QString ip)
{
    if (mapClients.contains(ip)) {
        LiteralOsdSocket* const client = mapClients.value(ip);
        mapClients.remove(ip);
        delete client;
    }
}

void LiteralOsdManage::sendDatatoDevice(void* parameters)
{
    const model_OsdParam record = *static_cast<model_OsdParam*>(parameters);
    Q_EMIT sigSendDatatoDevice(record);
}
