// SPDX-License-Identifier: MIT
#include "core_manage.h"
#include "core_serialport.h"
#include "core_udp.h"
#include "corefactory.h"
#include "eventually.h"
#include "hostqueue.h"
#include "icoreosdbase.h"
#include "metamethods.h"
#include "replybytes.h"
#include "vela_core_serialport.h"

#include <gtest/gtest.h>

#include <QPointer>
#include <QUdpSocket>

#include <cstddef>
#include <cstring>
#include <memory>
#include <type_traits>
#include <vector>

TEST(CoreFactory, UdpForItsKindAndForUnknownKinds)
{
    for (const int kind : {2, 4, 99, -1}) {
        ICoreBase* made = CoreFactory::creatCoreObj(static_cast<ConnType>(kind));
        EXPECT_NE(qobject_cast<core_UDP*>(made), nullptr) << kind;
        EXPECT_EQ(made, CoreFactory::iCORE);
    }
}

TEST(CoreFactory, OperationsOfOtherLinksDoNothing)
{
    for (const ConnType kind : {ConnSerial, ConnVelaSerial, ConnUsb}) {
        const std::unique_ptr<ICoreBase> made(CoreFactory::creatCoreObjInstance(kind));
        made->setDeviceIP(QStringLiteral("127.0.0.1"));
        made->setPort(1000);
        EXPECT_EQ(QMetaObject::invokeMethod(made.get(), "readPendingDatagrams"), kind != ConnUsb);
        if (kind == ConnUsb) {
            made->closeSerialPort();
            EXPECT_FALSE(made->openSerialPort({}, QSerialPort::Baud9600, QSerialPort::OneStop,
                                              QSerialPort::NoParity, QSerialPort::NoFlowControl,
                                              QSerialPort::Data8));
        } else {
            made->closeUSB();
            EXPECT_FALSE(made->openUSB(1, 1));
        }
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

// A manager of the host's, whose memory only its own class knows to give back.
class HostsManager : public ICoreOsdBase
{
public:
    ~HostsManager() override { ++destroyed; }
    static void* operator new(std::size_t size)
    {
        return static_cast<char*>(::operator new(size + offset)) + offset;
    }
    static void operator delete(void* memory)
    {
        ++freed;
        ::operator delete(static_cast<char*>(memory) - offset);
    }
    void openClient(QString, int) override {}
    void closeClient(QString) override {}
    void sendDatatoDevice(void*) override {}

    static inline int destroyed = 0;
    static inline int freed = 0;

private:
    static constexpr std::size_t offset = 64;
};

TEST(CoreFactory, DeletesWhatTheHostPutThere)
{
    CoreFactory::iOsdCore = new HostsManager;
    const ICoreOsdBase* const made = CoreFactory::createOsdCoreObj(ConnOsdTcp);
    EXPECT_EQ(HostsManager::destroyed, 1);
    EXPECT_EQ(HostsManager::freed, 1);
    EXPECT_EQ(CoreFactory::iOsdCore, made);
}

// The one before is gone when the next one asks for its port.
TEST(CoreFactory, AskingAgainDestroysBeforeItMakes)
{
    CoreFactory::creatCoreObj(ConnUdp);
    CoreFactory::creatCoreObj(ConnUdp);
    QUdpSocket peer;
    peer.writeDatagram(replybytes::text(0x10, 0x20), QHostAddress::LocalHost, 5104);
    EXPECT_TRUE(eventually([] { return hostqueue::size() == 1; }));
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

namespace
{

// Where a virtual operation stands in the table: such a pointer to member holds that, and 1.
template <class Operation>
std::ptrdiff_t slotOf(Operation operation)
{
    std::ptrdiff_t offset = 0;
    static_assert(sizeof operation >= sizeof offset);
    std::memcpy(&offset, &operation, sizeof offset);
    return (offset - 1) / static_cast<std::ptrdiff_t>(sizeof(void*));
}

bool areConsecutive(const std::vector<std::ptrdiff_t>& places)
{
    for (std::size_t i = 1; i < places.size(); ++i) {
        if (places[i] != places[i - 1] + 1) {
            return false;
        }
    }
    return true;
}

} // namespace

// Hosts that were built with an earlier version call by these places.
TEST(Interfaces, OperationsKeepTheirPlaces)
{
    EXPECT_TRUE(areConsecutive({slotOf(&ICoreBase::setDeviceIP), slotOf(&ICoreBase::setPort),
                                slotOf(&ICoreBase::clearQueue), slotOf(&ICoreBase::openSerialPort),
                                slotOf(&ICoreBase::closeSerialPort), slotOf(&ICoreBase::openUSB),
                                slotOf(&ICoreBase::closeUSB), slotOf(&ICoreBase::setDeviceType),
                                slotOf(&ICoreBase::sendDatatoDevice),
                                slotOf(&ICoreBase::sendDatatoDeviceByFeatures),
                                slotOf(&ICoreBase::sendDatatoDeviceForSysPlan)}));
    EXPECT_TRUE(
        areConsecutive({slotOf(&ICoreOsdBase::openClient), slotOf(&ICoreOsdBase::closeClient),
                        slotOf(&ICoreOsdBase::sendDatatoDevice)}));
}

TEST(MetaObjects, DeviceLinkHasThreeSlotsAndNoSignal)
{
    EXPECT_EQ(ownMethods(ICoreBase::staticMetaObject),
              QStringList({QStringLiteral("slot sendDatatoDevice(void*) parameters"),
                           QStringLiteral("slot sendDatatoDeviceByFeatures(void*) parameters"),
                           QStringLiteral("slot sendDatatoDeviceForSysPlan(void*) parameters")}));
    EXPECT_EQ(ownMethods(ICoreOsdBase::staticMetaObject),
              QStringList({QStringLiteral("slot sendDatatoDevice(void*) parameters")}));
}

TEST(MetaObjects, UdpMethodsInTheirOrder)
{
    EXPECT_EQ(
        ownMethods(core_UDP::staticMetaObject),
        QStringList({QStringLiteral("signal signalReInitUdp() "),
                     QStringLiteral("signal signalSendReceiveMessageToUiPro(void*) "),
                     QStringLiteral("slot reInitUdp() "), QStringLiteral("slot reInitUdpZarn() "),
                     QStringLiteral("slot readPendingDatagrams() "),
                     QStringLiteral("slot sendDatatoDevice(void*) parameters"),
                     QStringLiteral("slot sendDatatoDeviceByFeatures(void*) parameters"),
                     QStringLiteral("slot sendDatatoDeviceForSysPlan(void*) parameters"),
                     QStringLiteral("slot processInfoDisplayonUI(void*) parameters")}));
}
