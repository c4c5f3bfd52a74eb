// SPDX-License-Identifier: MIT
#include "corefactory.h"

#include "core_osd_manage.h"
#include "core_serialport.h"
#include "core_udp.h"
#include "core_usb.h"
#include "osdrecordsource.h"
#include "vela_core_serialport.h"

ICoreBase* CoreFactory::iCORE = nullptr;
ICoreOsdBase* CoreFactory::iOsdCore = nullptr;

ICoreBase* CoreFactory::creatCoreObj(ConnType type)
{
    // iCORE keeps the destroyed object's address until the new one is made: hosts compare it.
    delete iCORE;
    iCORE = creatCoreObjInstance(type);
    return iCORE;
}

ICoreOsdBase* CoreFactory::createOsdCoreObj(ConnOsdType type)
{
    osdrecordsource::set(nullptr);
    delete iOsdCore;
    iOsdCore = nullptr;
    iOsdCore = creatCoreObjInstance(type);
    osdrecordsource::set(static_cast<core_Osd_Manage*>(iOsdCore));
    return iOsdCore;
}

ICoreBase* CoreFactory::creatCoreObjInstance(ConnType type)
{
    switch (type) {
    case ConnUsb:
        return new Core_USB;
    case ConnSerial:
        return new Core_SerialPort;
    case ConnVelaSerial:
        return new Vela_Core_SerialPort;
    case ConnUdp:
        break;
    }
    return new core_UDP;
}

ICoreOsdBase* CoreFactory::creatCoreObjInstance(ConnOsdType /*type*/)
{
    return new core_Osd_Manage;
}
