// SPDX-License-Identifier: MIT
#include "core_osd_manage.h"
#include "core_osd_tcpsocket.h"
#include "corefactory.h"
#include "eventlog.h"
#include "eventually.h"
#include "hostmanager.h"
#include "messagecapture.h"
#include "metamethods.h"
#include "osdhost.h"
#include "osdsimulator.h"
#include "processstate.h"
#include "shortest.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>

namespace
{

OsdSimulatorOptions at(const QString& address)
{
    OsdSimulatorOptions options;
    options.address = address;
    options.port = 0;
    options.dataLength = 0;
    return options;
}

const QString first = QStringLiteral("127.0.0.1");
const QString second = QStringLiteral("127.0.0.2");

void send(ICoreOsdBase& manager, const QString& ip, char ch2)
{
    model_OsdParam record = osdhost::command(ip, ch2);
    manager.sendDatatoDevice(&record);
}

bool answered(ICoreOsdBase& manager, const QString& ip, char ch2)
{
    return eventually([&] {
        send(manager, ip, ch2); // again and again, but no more than what is late is worth
        return eventually([ch2] { return osdhost::bytes().contains(ch2); },
                          std::chrono::milliseconds(20));
    });
}

bool isRegistered(const char* name)
{
#if QT_VERSION_MAJOR < 6
    return QMetaType::type(name) != QMetaType::UnknownType;
#else
    return QMetaType::fromName(name).isValid();
#endif
}

} // namespace

TEST(OsdMeta, DeclaresItsMethodsInOrder)
{
    EXPECT_EQ(ownMethods(ICoreOsdBase::staticMetaObject),
              QStringList({QStringLiteral("slot sendDatatoDevice(void*) parameters")}));
    EXPECT_EQ(ownMethods(core_Osd_Manage::staticMetaObject),
              QStringList({QStringLiteral("signal sigSendDatatoDevice(model_OsdParam) parameters"),
                           QStringLiteral("slot sendDatatoDevice(void*) parameters")}));
    EXPECT_EQ(ownMethods(Core_Osd_TcpSocket::staticMetaObject),
              QStringList(
                  {QStringLiteral("signal closeSocket() "), QStringLiteral("slot onStarted() "),
                   QStringLiteral("slot onConnected() "),
                   QStringLiteral("slot onError(QAbstractSocket::SocketError) error"),
                   QStringLiteral("slot onDisConnected() "), QStringLiteral("slot onReadyRead() "),
                   QStringLiteral("slot onSendDatatoDevice(model_OsdParam) parameters"),
                   QStringLiteral("slot onCloseSocket() ")}));
}

TEST(OsdMeta, RegistersItsTypes)
{
    core_Osd_Manage manager;
    EXPECT_TRUE(isRegistered("model_OsdParam"));
    Core_Osd_TcpSocket socket(nullptr);
    EXPECT_TRUE(isRegistered("QAbstractSocket::SocketError"));
}

TEST(OsdMeta, TakesARecordByName)
{
    core_Osd_Manage manager;
    model_OsdParam emitted;
    QObject::connect(&manager, &core_Osd_Manage::sigSendDatatoDevice,
                     [&emitted](const model_OsdParam& record) { emitted = record; });
    model_OsdParam record = osdhost::command(first, 'm', "data");
    record.nParam1 = 11;
    record.nParam2 = 12;
    record.nParam3 = 13;
    record.strParam = QStringLiteral("text");
    ASSERT_TRUE(QMetaObject::invokeMethod(&manager, "sendDatatoDevice", Qt::DirectConnection,
                                          Q_ARG(void*, &record)));
    EXPECT_EQ(emitted.ch0, 0);
    EXPECT_EQ(emitted.ch1, 1);
    EXPECT_EQ(emitted.ch2, 'm');
    EXPECT_EQ(emitted.ch6, 6);
    EXPECT_EQ(emitted.strIP, first);
    EXPECT_EQ(emitted.nParam1, 11);
    EXPECT_EQ(emitted.nParam2, 12);
    EXPECT_EQ(emitted.nParam3, 13);
    EXPECT_EQ(emitted.strParam, QStringLiteral("text"));
    EXPECT_EQ(emitted.arryData, "data");
}

TEST(OsdFactory, KeepsOneSharedManager)
{
    EXPECT_EQ(CoreFactory::iOsdCore, nullptr);
    ICoreOsdBase* const one = CoreFactory::createOsdCoreObj(ConnOsdTcp);
    ASSERT_NE(one, nullptr);
    EXPECT_EQ(CoreFactory::iOsdCore, one);
    EXPECT_NE(qobject_cast<core_Osd_Manage*>(one), nullptr);
    bool destroyed = false;
    QObject::connect(one, &QObject::destroyed, [&destroyed] {
        destroyed = true;
        EXPECT_NE(CoreFactory::iOsdCore, nullptr); // cleared behind it
    });
    ICoreOsdBase* const two = CoreFactory::createOsdCoreObj(static_cast<ConnOsdType>(99));
    EXPECT_TRUE(destroyed);
    EXPECT_EQ(CoreFactory::iOsdCore, two);
    EXPECT_NE(qobject_cast<core_Osd_Manage*>(two), nullptr);
    const std::unique_ptr<ICoreOsdBase> own(
        CoreFactory::creatCoreObjInstance(static_cast<ConnOsdType>(-1)));
    EXPECT_NE(qobject_cast<core_Osd_Manage*>(own.get()), nullptr);
    EXPECT_NE(own.get(), two);
    EXPECT_EQ(CoreFactory::iOsdCore, two);
    delete two;
    CoreFactory::iOsdCore = nullptr;
}

TEST(OsdManage, DoesNothingWithoutClients)
{
    core_Osd_Manage manager;
    model_OsdParam record = osdhost::command(first);
    manager.sendDatatoDevice(&record);
    manager.sendDatatoDevice(nullptr);
    manager.closeClient(first);
    EXPECT_EQ(osdhost::size(), 0U);
}

TEST(OsdManage, KeepsTheFirstClientOfAnAddress)
{
    OsdSimulator near(at(first));
    OsdSimulator other(at(first));
    ASSERT_TRUE(near.start());
    ASSERT_TRUE(other.start());
    const int threads = processstate::threads();
    core_Osd_Manage manager;
    manager.openClient(first, near.port());
    manager.openClient(first, other.port());
    manager.openClient(first, near.port());
    ASSERT_TRUE(eventually([&] { return near.accepted() == 1; }));
    ASSERT_TRUE(eventually([&] { return processstate::threads() == threads + 2; }));
    EXPECT_EQ(other.accepted(), 0);
    manager.closeClient(QStringLiteral("127.0.0.1 "));
    EXPECT_EQ(near.connected(), 1);
    manager.closeClient(first);
    ASSERT_TRUE(eventually([&] { return near.connected() == 0; }));
    manager.openClient(first, other.port());
    EXPECT_TRUE(eventually([&] { return other.accepted() == 1; }));
    EXPECT_EQ(near.accepted(), 1);
}

TEST(OsdManage, ALostConnectionKeepsItsEntry)
{
    OsdSimulator near(at(first));
    ASSERT_TRUE(near.start());
    const int threads = processstate::threads();
    const int descriptors = processstate::descriptors();
    auto* const manager = CoreFactory::createOsdCoreObj(ConnOsdTcp);
    for (const bool reset : {false, true}) {
        const int accepted = near.accepted();
        manager->openClient(first, near.port());
        ASSERT_TRUE(eventually([&] { return near.accepted() == accepted + 1; }));
        ASSERT_TRUE(answered(*manager, first, reset ? 'r' : 'c'));
        near.hangUp(reset);
        ASSERT_TRUE(eventually([&] { return processstate::threads() == threads; }));
        EXPECT_TRUE(eventually([&] { return processstate::descriptors() == descriptors; }));
        manager->openClient(first, near.port());
        send(*manager, first, 'n');
        EXPECT_EQ(processstate::threads(), threads);
        EXPECT_EQ(near.accepted(), accepted + 1);
        manager->closeClient(first);
    }
    EXPECT_FALSE(osdhost::bytes().contains('n'));
    manager->openClient(first, near.port());
    EXPECT_TRUE(answered(*manager, first, 'd'));
    delete manager;
    CoreFactory::iOsdCore = nullptr;
}

TEST(OsdManage, ClosesItsClientsInKeyOrder)
{
    const QStringList keys = {QStringLiteral("127.0.0.3"), QStringLiteral("127.0.0.1"),
                              QStringLiteral("127.0.0.2")};
    std::vector<std::unique_ptr<OsdSimulator>> endpoints;
    auto manager = std::make_unique<core_Osd_Manage>();
    const auto log = std::make_shared<EventLog>();
    manager->addObserver(log);
    for (const QString& key : keys) {
        endpoints.push_back(std::make_unique<OsdSimulator>(at(key)));
        ASSERT_TRUE(endpoints.back()->start());
        manager->openClient(key, endpoints.back()->port());
    }
    ASSERT_TRUE(log->has(3, LinkEvent::Kind::Opened));
    manager.reset();
    ASSERT_TRUE(log->has(3, LinkEvent::Kind::Closed));
    auto closed = log->all(LinkEvent::Kind::Closed); // told by a thread of each
    std::sort(closed.begin(), closed.end(),
              [](const auto& one, const auto& other) { return one.event.time < other.event.time; });
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(closed.at(static_cast<std::size_t>(i)).event.peer,
                  QStringLiteral("127.0.0.%1").arg(i + 1));
    }
    for (const auto& endpoint : endpoints) {
        EXPECT_TRUE(eventually([&] { return endpoint->connected() == 0; }));
    }
}

TEST(OsdManage, OnlyTheSharedManagersRecordsArrive)
{
    OsdSimulator near(at(first));
    OsdSimulator far(at(second));
    ASSERT_TRUE(near.start());
    ASSERT_TRUE(far.start());
    const std::unique_ptr<ICoreOsdBase> own(CoreFactory::creatCoreObjInstance(ConnOsdTcp));
    // Begun while there is no shared manager: no records, not even when there is one.
    own->openClient(first, near.port());
    ASSERT_TRUE(eventually([&] { return near.connected() == 1; }));
    ICoreOsdBase* const shared = CoreFactory::createOsdCoreObj(ConnOsdTcp);
    own->openClient(second, far.port());
    ASSERT_TRUE(osdhost::settle(second, far, 's'));
    send(*own, second, 'o');
    send(*shared, first, 'p');
    ASSERT_TRUE(osdhost::settle(second, far, 't')); // nothing is on its way to it any more
    EXPECT_EQ(near.received(), QByteArray());
    EXPECT_FALSE(far.received().contains('o'));
    own->closeClient(first);
    own->openClient(first, near.port());
    ASSERT_TRUE(answered(*shared, first, 'q'));
    // The next shared manager reaches those that are begun from then on.
    ICoreOsdBase* const next = CoreFactory::createOsdCoreObj(ConnOsdTcp);
    const QByteArray before = far.received();
    send(*next, second, 'u');
    own->closeClient(first);
    own->openClient(first, near.port());
    ASSERT_TRUE(answered(*next, first, 'v'));
    EXPECT_EQ(far.received(), before);
    delete next;
    CoreFactory::iOsdCore = nullptr;
}

TEST(OsdManage, TheSharedManagerIsWhatTheHostSays)
{
    OsdSimulator near(at(first));
    ASSERT_TRUE(near.start());
    {
        const std::unique_ptr<ICoreOsdBase> own(CoreFactory::creatCoreObjInstance(ConnOsdTcp));
        CoreFactory::iOsdCore = own.get();
        own->openClient(first, near.port());
        EXPECT_TRUE(answered(*own, first, 'a'));
    }
    // It still stands there, but is gone.
    core_Osd_Manage another;
    another.openClient(first, near.port());
    ASSERT_TRUE(eventually([&] { return near.accepted() == 2; }));
    another.closeClient(first);
    CoreFactory::iOsdCore = nullptr;

    ICoreOsdBase* const shared = CoreFactory::createOsdCoreObj(ConnOsdTcp);
    CoreFactory::iOsdCore = nullptr;
    shared->openClient(first, near.port());
    ASSERT_TRUE(eventually([&] { return near.connected() == 1; }));
    const QByteArray before = near.received();
    send(*shared, first, 'n');
    CoreFactory::iOsdCore = shared;
    shared->closeClient(first);
    shared->openClient(first, near.port());
    EXPECT_TRUE(answered(*shared, first, 'b'));
    EXPECT_TRUE(near.received().mid(before.size()).startsWith('b'));
    delete shared;
    CoreFactory::iOsdCore = nullptr;
}

TEST(OsdManage, TheSharedManagerMayGoWhileWorkersStartAndEnd)
{
    OsdSimulator near(at(first));
    ASSERT_TRUE(near.start());
    std::atomic<bool> ending{false};
    std::vector<std::thread> openers;
    openers.reserve(4);
    for (int i = 0; i < 4; ++i) {
        openers.emplace_back([&, i] {
            while (!ending) {
                Core_Osd_TcpSocket socket(nullptr);
                socket.connectSever(i % 2 == 0 ? first : second, near.port());
            }
        });
    }
    for (int i = 0; i < 300; ++i) {
        CoreFactory::createOsdCoreObj(ConnOsdTcp);
        send(*CoreFactory::iOsdCore, first, 'x');
        if (i % 3 == 0) {
            delete CoreFactory::iOsdCore;
            __atomic_store_n(&CoreFactory::iOsdCore, nullptr, __ATOMIC_RELEASE); // others open
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    ending = true;
    for (std::thread& opener : openers) {
        opener.join();
    }
    ICoreOsdBase* const manager = CoreFactory::createOsdCoreObj(ConnOsdTcp);
    manager->openClient(first, near.port());
    EXPECT_TRUE(answered(*manager, first, 'e'));
    delete manager;
    CoreFactory::iOsdCore = nullptr;
}

TEST(OsdManage, AHostsOwnManagerIsHeardToo)
{
    OsdSimulator near(at(first));
    ASSERT_TRUE(near.start());
    const std::unique_ptr<ICoreOsdBase> own(CoreFactory::creatCoreObjInstance(ConnOsdTcp));
    for (int round = 0; round < 5; ++round) {
        const auto host = std::make_unique<HostManager>();
        CoreFactory::iOsdCore = host.get();
        const int accepted = near.accepted();
        own->openClient(first, near.port());
        ASSERT_TRUE(eventually([&] { return near.accepted() == accepted + 1; }));
        EXPECT_TRUE(answered(*host, first, static_cast<char>('a' + round)));
        // From any thread, too.
        std::thread([&] { send(*host, first, static_cast<char>('k' + round)); }).join();
        EXPECT_TRUE(
            eventually([&] { return osdhost::bytes().contains(static_cast<char>('k' + round)); }));
        if (round % 2 == 0) {
            near.hangUp(true); // while the manager goes
        } else {
            own->closeClient(first);
        }
        CoreFactory::iOsdCore = nullptr;
        own->closeClient(first);
    }
}

TEST(OsdManage, AManagerWithoutTheSignalIsNoHarm)
{
    class SilentManager : public ICoreOsdBase
    {
    public:
        void openClient(QString /*ip*/, int /*port*/) override {}
        void closeClient(QString /*ip*/) override {}
        void sendDatatoDevice(void* /*parameters*/) override {}
    };
    OsdSimulator near(at(first));
    ASSERT_TRUE(near.start());
    const MessageCapture messages{MessageCapture::Kind::Everything};
    SilentManager silent;
    CoreFactory::iOsdCore = &silent;
    core_Osd_Manage own;
    own.openClient(first, near.port());
    own.openClient(second, near.port());
    EXPECT_TRUE(eventually([&] { return near.connected() == 1; }));
    send(own, first, 'n');
    EXPECT_EQ(messages.lines().size(), 1) << messages.lines().join('\n').toStdString();
    EXPECT_TRUE(messages.lines().value(0).contains(QLatin1String("sigSendDatatoDevice")));
    own.closeClient(first);
    EXPECT_EQ(near.received(), QByteArray());
    CoreFactory::iOsdCore = nullptr;
}

TEST(OsdManage, AWallOfEndpointsTakesTwoThreadsEach)
{
    constexpr int count = 30;
    std::vector<std::unique_ptr<OsdSimulator>> endpoints;
    for (int i = 0; i < count; ++i) {
        endpoints.push_back(
            std::make_unique<OsdSimulator>(at(QStringLiteral("127.0.1.%1").arg(i + 1))));
        ASSERT_TRUE(endpoints.back()->start());
    }
    const int threads = processstate::threads();
    const int descriptors = processstate::descriptors();
    ICoreOsdBase* const manager = CoreFactory::createOsdCoreObj(ConnOsdTcp);
    for (int i = 0; i < count; ++i) {
        manager->openClient(QStringLiteral("127.0.1.%1").arg(i + 1),
                            endpoints[static_cast<std::size_t>(i)]->port());
    }
    for (int i = 0; i < count; ++i) {
        ASSERT_TRUE(osdhost::settle(QStringLiteral("127.0.1.%1").arg(i + 1),
                                    *endpoints[static_cast<std::size_t>(i)], static_cast<char>(i)));
    }
    EXPECT_TRUE(eventually([&] { return processstate::threads() <= threads + 2 * count; }));
    for (int i = 0; i < count; ++i) {
        for (const QByteArray& command : endpoints[static_cast<std::size_t>(i)]->commands()) {
            EXPECT_TRUE(command.at(0) == static_cast<char>(i) || command.at(0) == 0x7f);
        }
    }
    int next = 0;
    const auto closing = [&] {
        return elapsed([&] { manager->closeClient(QStringLiteral("127.0.1.%1").arg(++next)); });
    };
    EXPECT_LT(shortest(450, closing), 450); // waiting in vain for a thread takes 500
    EXPECT_LT(elapsed([&] { delete manager; }), 3000 * count); // nor for what is not pending
    CoreFactory::iOsdCore = nullptr;
    EXPECT_TRUE(eventually([&] { return processstate::threads() == threads; }));
    EXPECT_TRUE(eventually([&] {
        return std::all_of(endpoints.begin(), endpoints.end(),
                           [](const auto& endpoint) { return endpoint->connected() == 0; });
    }));
    EXPECT_TRUE(eventually([&] { return processstate::descriptors() == descriptors; }));
}
