// SPDX-License-Identifier: MIT
#include "biz_cmdswork.h"
#include "core_udp.h"
#include "hostqueue.h"
#include "linklocal.h"
#include "messagecapture.h"
#include "processstate.h"
#include "recordequality.h"
#include "threadrefusal.h"
#include "udppeer.h"

#include <gtest/gtest.h>

#include <QThread>

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <thread>
#include <utility>

namespace
{

const QString orphanBlock = QStringLiteral("arrayreceived.isEmpty()||stdCMDIn.isEmpty()");
const QString zeroLength = QStringLiteral("arraylen=!arrayreceived.size() return");
const QString lengthMismatch = QStringLiteral("combineTwoByte(parameters.DAT3, parameters.DAT4) != "
                                              "parameters.arryDatablock.size() return");

bool queued(std::size_t count)
{
    return eventually([count] { return hostqueue::size() == count; });
}

bool logged(const QString& line)
{
    return eventually([&line] { return hostqueue::countLog(line) > 0; });
}

// A transport in a thread of its own, for what makes the receiving thread wait.
class OwnThread
{
public:
    OwnThread()
    {
        thread->start();
        eventually([this] { return ready.load(); });
    }

    ~OwnThread()
    {
        stop = true;
        thread->wait();
    }

    OwnThread(const OwnThread&) = delete;
    OwnThread& operator=(const OwnThread&) = delete;

private:
    std::atomic<bool> ready{false};
    std::atomic<bool> stop{false};
    const std::unique_ptr<QThread> thread{QThread::create([this] {
        core_UDP transport;
        ready = true;
        while (!stop) {
            QCoreApplication::processEvents();
            std::this_thread::sleep_for(std::chrono::microseconds(100));
        }
    })};
};

// A host's message handler that does something of its own, once, at the first line with a text.
class HandlerThatActs
{
public:
    HandlerThatActs(const QString& text, std::function<void()> does)
    {
        actsInThisThread = true;
        awaited = text;
        action = std::move(does);
        below = qInstallMessageHandler(nullptr);
        qInstallMessageHandler(handle);
    }

    ~HandlerThatActs() { qInstallMessageHandler(below); }
    HandlerThatActs(const HandlerThatActs&) = delete;
    HandlerThatActs& operator=(const HandlerThatActs&) = delete;

    bool acted() const { return !action; }

private:
    static void handle(QtMsgType type, const QMessageLogContext& context, const QString& text)
    {
        below.load()(type, context, text);
        if (actsInThisThread && action && text.contains(awaited)) {
            std::exchange(action, nullptr)();
        }
    }

    static inline thread_local bool actsInThisThread = false;
    static inline QString awaited;
    static inline std::function<void()> action;
    static inline std::atomic<QtMessageHandler> below{nullptr};
};

} // namespace

class CoreUdpReceive : public ::testing::Test
{
protected:
    CoreUdpReceive()
    {
        hostqueue::clear();
        transport->setDeviceType(static_cast<model_GlobalEnum::DeviceType>(0x4711));
    }

    // After this datagram everything sent before has been read: loopback keeps the order.
    void readAll()
    {
        const std::size_t before = hostqueue::size();
        peer.send(replyText(0x79, 0x0c));
        ASSERT_TRUE(eventually([before] { return hostqueue::size() > before; }));
    }

    UdpPeer peer{QStringLiteral("127.0.0.3")};
    std::unique_ptr<core_UDP> transport = std::make_unique<core_UDP>();
    MessageCapture capture;
};

TEST_F(CoreUdpReceive, ReplyIsDecodedStampedAndFlagged)
{
    const QByteArray reply = replyText(0x10, 0x20, 0x30, 0x40);
    peer.send(reply);
    ASSERT_TRUE(queued(1));
    model_Protocoldata expected;
    expected.HEAD = 0x5a;
    expected.ADDR = 1;
    expected.CMD = 0x10;
    expected.DAT1 = 0x20;
    expected.DAT2 = 7;
    expected.DAT3 = 0x30;
    expected.DAT4 = 0x40;
    expected.CHKSUM = (0x5a + 1 + 0x10 + 0x20 + 7 + 0x30 + 0x40) & 0xff;
    expected.strKey = expected.strKey2 = QStringLiteral("127.0.0.3");
    expected.featureCode = 0x4711;
    EXPECT_TRUE(sameRecord(hostqueue::records().front(), expected));
    EXPECT_TRUE(hostqueue::flag());
    EXPECT_EQ(capture.lines(),
              QStringList({QStringLiteral("\"Recv data:%1\"").arg(QString::fromLatin1(reply)),
                           QStringLiteral("\"host ip:127.0.0.3\"")}));
}

TEST_F(CoreUdpReceive, CompleteKindsAreQueuedStoreKindsWait)
{
    for (int command : {0x79, 0xf1, 0x77, 0x8b, 0x8e, 0x69, 0x10, 0xff}) {
        for (int subCode = 0; subCode < 256; ++subCode) {
            hostqueue::clear();
            const bool stores = (command == 0x79 && subCode != 0x09 && subCode != 0x0c) ||
                                command == 0xf1 || (command == 0x77 && subCode == 0x23) ||
                                (command == 0x8b && (subCode == 5 || subCode == 9)) ||
                                (command == 0x8e && subCode == 0x27) ||
                                (command == 0x69 && subCode == 9);
            peer.send(replyText(command, subCode, 4, 0));
            peer.send(replyText(0x79, 0x0c)); // queued now, after the other has been routed
            ASSERT_TRUE(queued(stores ? 1 : 2)) << std::hex << command << ' ' << subCode;
            peer.send("tail"); // joins with what is stored
            if (stores) {
                ASSERT_TRUE(eventually([command] {
                    const int known = hostqueue::size() == 2 ? 1 : 0;
                    return known == 1 || command == 0;
                })) << std::hex
                    << command << ' ' << subCode;
                const auto joined = hostqueue::records().back();
                ASSERT_EQ(joined.CMD, command);
                ASSERT_EQ(joined.DAT1, subCode);
                ASSERT_EQ(joined.arryDatablock, QByteArray("tail"));
            }
        }
    }
}

TEST_F(CoreUdpReceive, AtSignReplyWithoutLengthIsComplete)
{
    peer.send(replyText(0xf1, 0x40, 0, 0));
    ASSERT_TRUE(queued(1));
    EXPECT_EQ(hostqueue::records().front().CMD, 0xf1);
    peer.send(replyText(0xf1, 0x40, 0, 1)); // announces 256 bytes
    readAll();
    EXPECT_EQ(hostqueue::size(), 2U);
    EXPECT_EQ(hostqueue::records().back().CMD, 0x79);
    peer.send(QByteArray(256, 'b'));
    ASSERT_TRUE(queued(3));
    EXPECT_EQ(hostqueue::records().back().arryDatablock, QByteArray(256, 'b'));
}

TEST_F(CoreUdpReceive, ImmediateReplyIsQueuedBeforeTheNextIsRead)
{
    // With the queue's lock held the receiving thread waits here, so the receiver gets its own.
    transport.reset();
    const OwnThread receiver;
    {
        const std::lock_guard lock(biz_CMDSWork::receiveHexCmdlock);
        peer.send(replyText(0x79, 0x0c, 1));
        peer.send(replyText(0x10, 0x01));
        ASSERT_TRUE(eventually([this] { return capture.lines().size() == 2; }));
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        EXPECT_EQ(capture.lines().size(), 2); // the second datagram has not been read
    }
    ASSERT_TRUE(queued(2));
    EXPECT_EQ(hostqueue::records().front().CMD, 0x79);
}

TEST_F(CoreUdpReceive, OtherRepliesNeverMakeTheReceiverWait)
{
    for (std::mutex* held : {&biz_CMDSWork::receiveHexCmdlock, &biz_CMDSWork::HexCmdlock}) {
        hostqueue::clear();
        capture.clear();
        {
            const std::lock_guard lock(*held); // by this thread, which also receives
            for (int i = 0; i < 100; ++i) {
                peer.send(replyText(0x10, i));
                peer.send(replyText(0x8b, 5));
                peer.send(QByteArray(150, 'b'));
                peer.send("orphan");
            }
            ASSERT_TRUE(eventually([this] {
                return capture.lines().filter(QStringLiteral("host ip:")).size() == 400;
            }));
        }
        ASSERT_TRUE(queued(200));
        const auto records = hostqueue::records();
        for (std::size_t i = 0; i < 100; ++i) {
            EXPECT_EQ(records[2 * i].DAT1, i); // and they come in order
            EXPECT_EQ(records[2 * i + 1].arryDatablock, QByteArray(145, 'b'));
        }
    }
    ASSERT_TRUE(eventually([] { return hostqueue::countLog(orphanBlock) == 200; }));
}

TEST_F(CoreUdpReceive, OnlyZeroAddressCommandAndSumMakeABlock)
{
    const auto reply = [](int command, int address, bool sumIsZero) {
        const int rest = 0x5a + address + command + 1 + 7;
        return replyText(command, 1, sumIsZero ? 0x200 - rest : 0, 0, address);
    };
    std::size_t expected = 0;
    for (const QByteArray& valid : {reply(0, 1, true), reply(0, 0, false), reply(0, 1, false),
                                    reply(0x10, 0, true), reply(0x10, 0, false)}) {
        peer.send(valid);
        ASSERT_TRUE(queued(++expected)) << valid.constData();
        EXPECT_EQ(hostqueue::records().back().HEAD, 0x5a);
    }
    for (const QByteArray& block : {reply(0, 0, true), QByteArray("<Ff30000010c000000>"),
                                    QByteArray("<F0000000000000000>")}) {
        peer.send(replyText(0xf1, 0x10, 19, 0));
        peer.send(block);
        ASSERT_TRUE(queued(++expected)) << block.constData();
        EXPECT_EQ(hostqueue::records().back().arryDatablock, block);
    }
}

TEST_F(CoreUdpReceive, ReceivedTextIsUtf8UpToTheFirstZeroByte)
{
    peer.send("gr\xc3\xbc\xc3\x9f");
    peer.send(QByteArray("ab\0cd", 5));
    ASSERT_TRUE(eventually([] { return hostqueue::countLog(orphanBlock) == 2; }));
    EXPECT_EQ(capture.count(QStringLiteral("\"Recv data:gr\u00fc\u00df\"")), 1);
    EXPECT_EQ(capture.count(QStringLiteral("\"Recv data:ab\"")), 1);
}

TEST_F(CoreUdpReceive, EachReplyIsStampedWithTheTypeOfTheMoment)
{
    for (const int type : {0x4712, 0, -1}) {
        transport->setDeviceType(static_cast<model_GlobalEnum::DeviceType>(type));
        readAll();
        EXPECT_EQ(hostqueue::records().back().featureCode, type);
    }
}

TEST_F(CoreUdpReceive, FlagStatusGoesBothWays)
{
    for (const bool on : {true, false, true}) {
        transport->setRetFlagStatus(on);
        EXPECT_EQ(hostqueue::flag(), on);
    }
}

TEST_F(CoreUdpReceive, BlockIsJoinedAndCarriesTheStampsOfItsDatagram)
{
    peer.send(replyText(0x8b, 0x05));
    UdpPeer other(QStringLiteral("127.0.0.4"));
    QByteArray block;
    for (int i = 0; i < 200; ++i) {
        block.append(static_cast<char>(i));
    }
    other.send(block);
    ASSERT_TRUE(queued(1));
    const auto record = hostqueue::records().front();
    EXPECT_EQ(record.arryDatablock, block.left(145));
    EXPECT_EQ(record.CMD, 0x8b);
    EXPECT_EQ(record.strKey, QStringLiteral("127.0.0.4"));
    EXPECT_EQ(record.strKey2, QStringLiteral("127.0.0.4"));
    EXPECT_EQ(record.bKeyFlag, 0);
    EXPECT_EQ(record.featureCode, 0x4711);
    EXPECT_TRUE(hostqueue::flag());
}

TEST_F(CoreUdpReceive, SecondStoredReplyReplacesTheFirst)
{
    peer.send(replyText(0x8b, 0x05));
    peer.send(replyText(0x77, 0x23));
    peer.send(QByteArray(129, 'x'));
    ASSERT_TRUE(queued(1));
    EXPECT_EQ(hostqueue::records().front().CMD, 0x77);
    peer.send(QByteArray(129, 'y'));
    ASSERT_TRUE(logged(orphanBlock));
    EXPECT_EQ(hostqueue::size(), 1U);
}

TEST_F(CoreUdpReceive, StoredReplyRaisesNoFlag)
{
    peer.send(replyText(0x8b, 0x05));
    ASSERT_TRUE(eventually([this] { return capture.lines().size() == 2; }));
    EXPECT_FALSE(hostqueue::flag());
}

TEST_F(CoreUdpReceive, CompleteReplyLeavesTheStoredOneAlone)
{
    peer.send(replyText(0x8e, 0x27, 3, 0));
    peer.send(replyText(0x10, 0x00));
    peer.send(replyText(0x79, 0x09));
    peer.send("abc");
    ASSERT_TRUE(queued(3));
    EXPECT_EQ(hostqueue::records().back().CMD, 0x8e);
    EXPECT_EQ(hostqueue::records().back().arryDatablock, QByteArray("abc"));
}

TEST_F(CoreUdpReceive, OrphanBlockRaisesTheFlagAndIsLogged)
{
    const auto before = hostqueue::logLines().size();
    peer.send("no reply before this");
    ASSERT_TRUE(logged(orphanBlock));
    EXPECT_EQ(hostqueue::logLines().mid(before), QStringList(orphanBlock));
    EXPECT_TRUE(hostqueue::flag());
    EXPECT_EQ(hostqueue::size(), 0U);
    ASSERT_TRUE(eventually([this] { return capture.lines().size() == 4; }));
    EXPECT_EQ(capture.lines().mid(2),
              QStringList({QStringLiteral("datagram.size()!=19 return"), orphanBlock}));
}

TEST_F(CoreUdpReceive, LengthOfAnAnnouncedBlockIsADebugLine)
{
    peer.send(replyText(0xf1, 0x10, 4, 0));
    peer.send("long enough");
    ASSERT_TRUE(queued(1));
    EXPECT_EQ(capture.lines().filter(QStringLiteral("dataLeng")),
              QStringList(QStringLiteral("dataLeng =  4 4")));
    peer.send(replyText(0x8b, 0x05, 4, 0));
    peer.send(QByteArray(145, 'b'));
    ASSERT_TRUE(queued(2));
    EXPECT_EQ(capture.lines().filter(QStringLiteral("dataLeng")).size(), 1);
}

TEST_F(CoreUdpReceive, WrongLengthIsLogged)
{
    peer.send(replyText(0xf1, 0x10, 16, 0));
    peer.send(QByteArray(15, 'x'));
    ASSERT_TRUE(logged(lengthMismatch));
    EXPECT_EQ(hostqueue::size(), 0U);
    EXPECT_TRUE(hostqueue::flag());
    EXPECT_EQ(capture.count(QStringLiteral("dataLeng =  16 15")), 1);
    hostqueue::clear();
    peer.send(replyText(0xf1, 0x10, 0, 0));
    peer.send("x");
    ASSERT_TRUE(logged(zeroLength));
    EXPECT_TRUE(hostqueue::flag());
    EXPECT_EQ(capture.count(QStringLiteral("arraylen=!arrayreceived.length()")), 1);
}

TEST_F(CoreUdpReceive, NegativeLengthNeverMatches)
{
    peer.send(replyText(0xf1, 0x10, 0, 0x80));
    peer.send(QByteArray(32768, 'x'));
    ASSERT_TRUE(logged(lengthMismatch));
    EXPECT_EQ(capture.count(QStringLiteral("dataLeng =  -32768 32768")), 1);
    EXPECT_EQ(hostqueue::size(), 0U);
}

TEST_F(CoreUdpReceive, ZeroLengthDatagramTakesTheJoinRoute)
{
    peer.send(replyText(0x8b, 0x05));
    peer.send(QByteArray());
    ASSERT_TRUE(logged(orphanBlock)); // the stored reply goes with it
    peer.send(QByteArray(145, 'x'));
    ASSERT_TRUE(eventually([] { return hostqueue::countLog(orphanBlock) == 2; }));
    EXPECT_EQ(hostqueue::size(), 0U);
}

TEST_F(CoreUdpReceive, LargestDatagram)
{
    const QByteArray largest(65507, 'z');
    peer.send(replyText(0xf1, 0x10, 0xff, 0x7f));
    peer.send(largest);
    ASSERT_TRUE(queued(1));
    EXPECT_EQ(hostqueue::records().front().arryDatablock, largest.left(32767));
}

TEST_F(CoreUdpReceive, WrongChecksumTakesTheJoinRoute)
{
    QByteArray wrong = replyText(0x10, 0x20);
    wrong[17] = wrong.at(17) == '0' ? '1' : '0';
    peer.send(wrong);
    ASSERT_TRUE(logged(orphanBlock));
    EXPECT_EQ(hostqueue::countLog(QStringLiteral("CHKSUM Wrong return")), 1);
    EXPECT_EQ(capture.count(QStringLiteral("CHKSUM Wrong return")), 1);
    peer.send(replyText(0x77, 0x23));
    peer.send(wrong); // 19 bytes of block
    ASSERT_TRUE(queued(1));
    EXPECT_EQ(hostqueue::records().front().arryDatablock, wrong);
}

TEST_F(CoreUdpReceive, NineteenBytesWithoutMarks)
{
    peer.send("<T5a011020073040xx>");
    ASSERT_TRUE(logged(orphanBlock));
    EXPECT_EQ(capture.count(QStringLiteral("no '<' 'F' ")), 1);
}

TEST_F(CoreUdpReceive, StoringWaitsForTheClassWideLock)
{
    // Read by the object's own thread, so hold the lock in another.
    std::atomic<int> phase{0};
    std::thread holder([&] {
        const std::lock_guard lock(core_UDP::stdCMDlock);
        phase = 1;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        phase = 2;
    });
    while (phase == 0) {
        std::this_thread::yield();
    }
    peer.send(replyText(0x8b, 0x05));
    readAll();
    EXPECT_EQ(phase, 2);
    holder.join();
}

TEST_F(CoreUdpReceive, JoinWaitsForNoClassWideLock)
{
    transport.reset();
    const OwnThread receiver;
    peer.send(replyText(0x8b, 0x05));
    readAll();
    const std::lock_guard lock(core_UDP::stdCMDlock);
    peer.send(QByteArray(145, 'a'));
    ASSERT_TRUE(queued(2));
    EXPECT_EQ(hostqueue::records().back().arryDatablock, QByteArray(145, 'a'));
    peer.send("orphan");
    ASSERT_TRUE(logged(orphanBlock));
}

TEST_F(CoreUdpReceive, MessageHandlerMayReInitialise)
{
    const std::function<void()> actions[] = {
        [this] { transport->reInitUdp(); }, [this] { transport->reInitUdpZarn(); },
        [this] {
            Q_EMIT transport->signalReInitUdp();
            QCoreApplication::processEvents();
        },
        [this] {
            transport->reInitUdp();
            peer.send(replyText(0x10, 1));
            QCoreApplication::processEvents(); // reads it with the first read on the stack
            transport->reInitUdpZarn();
        }};
    const int descriptors = processstate::descriptors();
    for (const char* line : {"Recv data:", "host ip:", "dataLeng = "}) {
        for (const auto& action : actions) {
            hostqueue::clear();
            peer.send(replyText(0xf1, 0x10, 3, 0));
            readAll();
            const HandlerThatActs handler(QString::fromLatin1(line), action);
            if (qstrcmp(line, "dataLeng = ") == 0) {
                peer.send("abc");
            } else {
                peer.send(replyText(0x10, 2));
            }
            ASSERT_TRUE(eventually([&handler] { return handler.acted(); })) << line;
            peer.send(replyText(0x79, 0x09)); // through the new socket
            ASSERT_TRUE(eventually([] {
                const auto records = hostqueue::records();
                return std::any_of(records.begin(), records.end(),
                                   [](const auto& record) { return record.DAT1 == 0x09; });
            })) << line;
            EXPECT_TRUE(eventually([&] { return processstate::descriptors() == descriptors; }));
        }
    }
}

TEST_F(CoreUdpReceive, TheDatagramInHandOutlivesARebuildByTheMessageHandler)
{
    for (const char* line : {"Recv data:", "host ip:"}) {
        hostqueue::clear();
        const HandlerThatActs handler(QString::fromLatin1(line),
                                      [this] { transport->reInitUdpZarn(); });
        peer.send(replyText(0x10, 2));
        ASSERT_TRUE(eventually([] { return hostqueue::flag(); })) << line;
        ASSERT_EQ(hostqueue::size(), 1U) << line;
        EXPECT_EQ(hostqueue::records()[0].DAT1, 2) << line;
        EXPECT_TRUE(hostqueue::logLines().isEmpty()) << line;
    }
}

TEST_F(CoreUdpReceive, TheDatagramInHandOutlivesOneThatTheMessageHandlerReads)
{
    for (const char* line : {"Recv data:", "host ip:"}) {
        hostqueue::clear();
        const HandlerThatActs handler(QString::fromLatin1(line), [this] {
            peer.send(replyText(0x10, 1));
            transport->readPendingDatagrams();
        });
        peer.send(replyText(0x10, 2));
        ASSERT_TRUE(eventually([] { return hostqueue::size() == 2; })) << line;
        EXPECT_EQ(hostqueue::records()[0].DAT1, 1) << line;
        EXPECT_EQ(hostqueue::records()[1].DAT1, 2) << line;
    }
}

TEST_F(CoreUdpReceive, AReplyThatTheMessageHandlerHasStoredWaitsForItsBlock)
{
    const HandlerThatActs handler(QStringLiteral("dataLeng = "), [this] {
        peer.send(replyText(0xf1, 0x11, 3, 0));
        transport->readPendingDatagrams();
    });
    peer.send(replyText(0xf1, 0x10, 3, 0));
    readAll();
    hostqueue::clear();
    peer.send("abc");
    ASSERT_TRUE(eventually([] { return hostqueue::size() == 1; }));
    peer.send("def");
    ASSERT_TRUE(eventually([] { return hostqueue::size() == 2; }));
    EXPECT_EQ(hostqueue::records()[0].arryDatablock, "abc");
    EXPECT_EQ(hostqueue::records()[1].arryDatablock, "def");
    EXPECT_EQ(hostqueue::records()[1].DAT1, 0x11);
}

TEST_F(CoreUdpReceive, JoinCalledByHostKnowsNoSender)
{
    transport->combineSTDCMDandBloackCMD("0123456789abcdef!", replyText(0xf1, 0x10, 0x10, 0));
    ASSERT_EQ(hostqueue::size(), 1U); // on the calling thread
    const auto record = hostqueue::records().front();
    EXPECT_EQ(record.arryDatablock, QByteArray("0123456789abcdef"));
    EXPECT_TRUE(record.strKey.isNull());
    EXPECT_EQ(record.featureCode, 0);
    EXPECT_TRUE(hostqueue::flag());

    hostqueue::clear();
    capture.clear();
    transport->combineSTDCMDandBloackCMD(QByteArray(), replyText(0x8b, 5));
    transport->combineSTDCMDandBloackCMD("block", QByteArray());
    EXPECT_EQ(capture.lines(), QStringList({orphanBlock, orphanBlock}));
    EXPECT_EQ(hostqueue::countLog(orphanBlock), 2);
    EXPECT_TRUE(hostqueue::flag());

    capture.clear();
    QByteArray wrong = replyText(0x8b, 5);
    wrong[16] = 'x';
    transport->combineSTDCMDandBloackCMD("block", wrong);
    EXPECT_EQ(capture.lines(),
              QStringList({QStringLiteral("CHKSUM Wrong return"),
                           QStringLiteral("arraylen=!arrayreceived.length()"), zeroLength}));
    EXPECT_EQ(hostqueue::size(), 0U);
}

TEST_F(CoreUdpReceive, DecoderResetsWhatItRefuses)
{
    model_Protocoldata refused;
    refused.strReply = QLatin1String("");
    const auto before = hostqueue::logLines().size();
    for (const char* datagram : {"", "<F", "<F010203040506071c", "<F010203040506071c>>",
                                 "<T010203040506071c>", "xF010203040506071c>"}) {
        EXPECT_TRUE(sameRecord(transport->getArrayData(datagram), refused)) << datagram;
    }
    EXPECT_TRUE(sameRecord(transport->getArrayData("<F010203040506071d>"), model_Protocoldata()));
    EXPECT_EQ(hostqueue::logLines().mid(before),
              QStringList(QStringLiteral("CHKSUM Wrong return")));
    EXPECT_EQ(transport->getArrayData("<F010203040506071C*").CHKSUM, 0x1c);
}

TEST_F(CoreUdpReceive, RefusedThreadLosesNoReply)
{
    {
        const ThreadRefusal refusal;
        const std::lock_guard lock(biz_CMDSWork::receiveHexCmdlock);
        peer.send(replyText(0x10, 0x01));
        peer.send("orphan");
        ASSERT_TRUE(eventually(
            [this] { return capture.lines().filter(QStringLiteral("host ip:")).size() == 2; }));
    }
    ASSERT_TRUE(queued(1));
    ASSERT_TRUE(logged(orphanBlock));
}

TEST_F(CoreUdpReceive, FloodNeedsFewThreadsAndEveryDatagramIsAccountedFor)
{
    QLoggingCategory::defaultCategory()->setEnabled(QtDebugMsg, false);
    const int before = processstate::threads();
    int most = 0;
    constexpr std::size_t rounds = 50;
    constexpr std::size_t burst = 200;
    for (std::size_t round = 1; round <= rounds; ++round) {
        for (std::size_t i = 0; i < burst; ++i) {
            peer.send(replyText(0x10, static_cast<int>(i % 256)));
            peer.send("orphan");
        }
        most = qMax(most, processstate::threads());
        ASSERT_TRUE(queued(round * burst));
        most = qMax(most, processstate::threads());
    }
    EXPECT_LE(most, before + 4); // one at work, others that have ended and not yet gone
    ASSERT_TRUE(eventually([] { return hostqueue::countLog(orphanBlock) == rounds * burst; }));
}

TEST_F(CoreUdpReceive, KernelHoldsABurstOf2000Replies)
{
    // Nothing is read meanwhile: this thread does not run its event loop.
    for (int i = 0; i < 2000; ++i) {
        peer.send(replyText(0x10, i % 256));
    }
    ASSERT_TRUE(queued(2000)) << hostqueue::size();
}

TEST_F(CoreUdpReceive, SendersAreToldApart)
{
    UdpPeer second(QStringLiteral("127.0.0.9"));
    QUdpSocket third;
    ASSERT_TRUE(third.bind(QHostAddress(QHostAddress::LocalHostIPv6), quint16{0}));
    for (int round = 0; round < 2; ++round) {
        peer.send(replyText(0x10, 1));
        second.send(replyText(0x10, 2));
        third.writeDatagram(replyText(0x10, 3), QHostAddress(QHostAddress::LocalHostIPv6),
                            UdpPeer::linkPort);
    }
    ASSERT_TRUE(queued(6));
    const auto records = hostqueue::records();
    const char* senders[] = {"127.0.0.3", "127.0.0.9", "::1"};
    for (std::size_t i = 0; i < 6; ++i) {
        EXPECT_EQ(records[i].strKey, QString::fromLatin1(senders[i % 3]));
        EXPECT_EQ(records[i].strKey2, records[i].strKey);
    }
}

TEST_F(CoreUdpReceive, LinkLocalSendersAreToldApartByTheInterface)
{
    if (!netns::isolated()) {
        GTEST_SKIP() << "the right to make a network namespace is missing";
    }
    if (!linklocal::addInterfaces()) {
        GTEST_SKIP() << "IPv6 is missing";
    }
    QUdpSocket device;
    ASSERT_TRUE(device.bind(QHostAddress(QHostAddress::AnyIPv6), quint16{0}));
    for (const char* interface : {"host0", "device0"}) {
        QHostAddress link(QStringLiteral("fe80::1"));
        link.setScopeId(QString::fromLatin1(interface));
        device.writeDatagram(replyText(0x10, 1), link, UdpPeer::linkPort);
    }
    ASSERT_TRUE(queued(2));
    EXPECT_EQ(hostqueue::records().front().strKey, QStringLiteral("fe80::1%host0"));
    EXPECT_EQ(hostqueue::records().back().strKey, QStringLiteral("fe80::1%device0"));
}

TEST_F(CoreUdpReceive, SlotMayBeCalledWithNothingThere)
{
    transport->readPendingDatagrams();
    peer.send(replyText(0x10, 1));
    transport->readPendingDatagrams();
    EXPECT_EQ(hostqueue::size(), 1U);
    peer.send(replyText(0x10, 2));
    ASSERT_TRUE(queued(2));
}
