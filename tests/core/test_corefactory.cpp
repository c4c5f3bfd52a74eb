// SPDX-License-Identifier: MIT
#include "core_manage.h"
#include "core_serialport.h"
#include "core_udp.h"
#include "corefactory.h"
#include "icoreosdbase.h"
#include "metamethods.h"
#include "vela_core_serialport.h"

#include <gtest/gtest.h>

#include <memory>
#include <type_traits>

#include <QPointer>

TEST(CoreFactory, UdpForItsKindAndForUnknownKinds)
{
    for (const int kind : {2, 4, 99, -1}) {
        ICoreBase* made = CoreFactory::creatCoreObj(static_cast<ConnType>(kind));
        EXPECT_NE(qobject_cast<core_UDP*>(made), nullptr) << kind;
        EXPECT_EQ(made, CoreFactory::iCORE);
    }
}

TEST(CoreFactory, SerialLinesForTheirKinds)
{
    EXPECT_NE(qobject_cast<Core_SerialPort*>(CoreFactory::creatCoreObj(ConnSerial)), nullptr);
    const QPointer<ICoreBase> first = CoreFactory::iCORE;
    const ICoreBase* second = CoreFactory::creatCoreObj(ConnSerial);
    EXPECT_TRUE(first.isNull());
    EXPECT_EQ(CoreFactory::iCORE, second);
    EXPECT_NE(qobject_cast<Vela_Core_SerialPort*>(CoreFactory::creatCoreObj(ConnVelaSerial)),
              nullptr);
}

TEST(CoreFactory, AskingAgainDestroysTheOneBefore)
{
    const QPointer<ICoreBase> first = CoreFactory::creatCoreObj(ConnUdp);
    EXPECT_FALSE(first.isNull());
    ICoreBase* second = CoreFactory::creatCoreObj(ConnUdp);
    EXPECT_TRUE(first.isNull());
    EXPECT_EQ(CoreFactory::iCORE, second);
}

TEST(CoreFactory, InstancesAreTheCallers)
{
    ICoreBase* shared = CoreFactory::creatCoreObj(ConnUdp);
    const std::unique_ptr<ICoreBase> own(CoreFactory::creatCoreObjInstance(ConnUdp));
    EXPECT_NE(own.get(), shared);
    EXPECT_EQ(CoreFactory::iCORE, shared);
    const std::unique_ptr<ICoreBase> usb(CoreFactory::creatCoreObjInstance(ConnUsb));
    EXPECT_EQ(CoreFactory::iCORE, shared);
}

TEST(CoreFactory, EnumerationsHave32Bits)
{
    static_assert(sizeof(std::underlying_type_t<ConnType>) == 4);
    static_assert(sizeof(std::underlying_type_t<ConnOsdType>) == 4);
    static_assert(sizeof(std::underlying_type_t<model_GlobalEnum::DeviceType>) == 4);
    EXPECT_EQ(ConnUsb, 0);
    EXPECT_EQ(ConnSerial, 1);
    EXPECT_EQ(ConnUdp, 2);
    EXPECT_EQ(ConnVelaSerial, 3);
    EXPECT_EQ(ConnOsdTcp, 0);
}

TEST(CoreManage, AnchorsTheLibrary)
{
    [[maybe_unused]] const Core_Manage anchor;
    static_assert(std::is_empty_v<Core_Manage>);
}

TEST(MetaObjects, DeviceLinkHasThreeSlotsAndNoSignal)
{
    EXPECT_EQ(ownMethods(ICoreBase::staticMetaObject),
              QStringList({QStringLiteral("sendDatatoDevice(void*) parameters"),
                           QStringLiteral("sendDatatoDeviceByFeatures(void*) parameters"),
                           QStringLiteral("sendDatatoDeviceForSysPlan(void*) parameters")}));
    EXPECT_EQ(ownMethods(ICoreOsdBase::staticMetaObject),
              QStringList({QStringLiteral("sendDatatoDevice(void*) parameters")}));
}

TEST(MetaObjects, UdpMethodsInTheirOrder)
{
    EXPECT_EQ(ownMethods(core_UDP::staticMetaObject),
              QStringList({QStringLiteral("signalReInitUdp() "),
                           QStringLiteral("signalSendReceiveMessageToUiPro(void*) "),
                           QStringLiteral("reInitUdp() "), QStringLiteral("reInitUdpZarn() "),
                           QStringLiteral("readPendingDatagrams() "),
                           QStringLiteral("sendDatatoDevice(void*) parameters"),
                           QStringLiteral("sendDatatoDeviceByFeatures(void*) parameters"),
                           QStringLiteral("sendDatatoDeviceForSysPlan(void*) parameters"),
                           QStringLiteral("processInfoDisplayonUI(void*) parameters")}));
}
