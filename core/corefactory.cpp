// SPDX-License-Identifier: MIT
#include "corefactory.h"

#include "core_osd_manage.h"
#include "core_serialport.h"
#include "core_udp.h"
#include "core_usb.h"
#include "osdrecordsource.h"
#include "vela_core_serialport.h"

#include <memory>
#include <new>

ICoreBase* CoreFactory::iCORE = nullptr;
ICoreOsdBase* CoreFactory::iOsdCore = nullptr;

namespace
{

// Endpoints look at it when they start.
[[maybe_unused]] const bool isShared = osdrecordsource::share(CoreFactory::iOsdCore);

// The memory of an object that has been destroyed. It is given back only when the next object has
// been made, so that hosts can tell the two by their addresses.
using Remains = std::unique_ptr<void, void (*)(void*)>;

template <class Object>
Remains destroy(Object* object)
{
    Remains remains(object == nullptr ? nullptr : dynamic_cast<void*>(object), ::operator delete);
    if (object != nullptr) {
        object->~Object();
    }
    return remains;
}

} // namespace

ICoreBase* CoreFactory::creatCoreObj(ConnType type)
{
    // iCORE keeps the destroyed object's address until the new one is made: hosts compare it.
    const Remains before = destroy(iCORE);
    iCORE = creatCoreObjInstance(type);
    return iCORE;
}

ICoreOsdBase* CoreFactory::createOsdCoreObj(ConnOsdType type)
{
    const Remains before = destroy(iOsdCore);
    osdrecordsource::set(nullptr);
    osdrecordsource::set(creatCoreObjInstance(type));
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
