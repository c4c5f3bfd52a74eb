// SPDX-License-Identifier: MIT
#include "corefactory.h"

#include "core_osd_manage.h"
#include "core_serialport.h"
#include "core_udp.h"
#include "core_usb.h"
#include "osdrecords.h"
#include "vela_core_serialport.h"

ICoreBase* CoreFactory::iCORE = nullptr;
ICoreOsdBase* CoreFactory::iOsdCore = nullptr;

namespace
{

// Endpoints look at it when they start.
[[maybe_unused]] const bool isShared = OsdRecords::share(CoreFactory::iOsdCore);

} // namespace

ICoreBase* CoreFactory::creatCoreObj(ConnType type)
{
    delete iCORE; // and keeps designating it until the new one is made
    iCORE = creatCoreObjInstance(type);
    return iCORE;
}

ICoreOsdBase* CoreFactory::createOsdCoreObj(ConnOsdType type)
{
    delete iOsdCore;
    OsdRecords::setShared(nullptr);
    OsdRecords::setShared(creatCoreObjInstance(type));
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
