// SPDX-License-Identifier: MIT
#pragma once

#include "emulatedhid.h"
#include "numberedreplies.h"
#include "serialpeer.h"
#include "soakpeer.h"

#include <QUdpSocket>

#include <optional>

class core_UDP;
class ICoreBase;
class SerialLine;

/// A device with a link of its own.
class DevicePeer : public SoakPeer
{
public:
    DevicePeer(numberedreplies::Link link, const QString& name, SoakHost& host, quint64 seed);

    /// Compares a record with the reply that was sent. The host's thread.
    void take(const model_Protocoldata& record);

protected:
    /// What the link stamps a reply with.
    virtual void stamp(const numberedreplies::Reply& reply, quint32 number,
                       model_Protocoldata& record) const = 0;
    /// Replies of one route keep their order.
    virtual int routeOf(const numberedreplies::Reply& reply) const = 0;

    void pass(quint32 number) override;
    QByteArray expected(quint32 number) const override;
    bool mayGoOn() const override;

    numberedreplies::Reply make(quint32 number) const
    {
        return numberedreplies::make(kind, number);
    }
    quint32 nextNumber();
    quint32 nextNumber(bool withBlock);  ///< of a reply with a block, or without
    QByteArray damaged(QByteArray head); ///< no reply any more
    QByteArray noise();
    std::chrono::milliseconds someTime() { return std::chrono::milliseconds(random.below(40)); }

    const numberedreplies::Link kind;
    std::unique_ptr<ICoreBase> link; // the host's thread, but for its pointer
    const std::shared_ptr<LinkCounters> counters = std::make_shared<LinkCounters>();
    quint64 sentBytes = 0;      // since it was opened
    quint64 receivedBefore = 0; // by the link, until it was opened
    quint64 receivedBytes() const;

private:
    quint32 newest = 0;                   // number that was sent
    std::array<quint32, 2> lastOfRoute{}; // the host's thread
};

class UdpPeers final : public DevicePeer
{
public:
    UdpPeers(SoakHost& host, quint64 seed);

private:
    void open() override;
    void restart() override;
    void close() override;
    void sendWhole() override;
    QByteArray incoming() override;
    void stamp(const numberedreplies::Reply& reply, quint32 number,
               model_Protocoldata& record) const override;
    int routeOf(const numberedreplies::Reply& reply) const override { return reply.isImmediate; }

    static constexpr std::size_t senders = 3;
    void send(quint32 number, const QByteArray& datagram);
    void sendWhole(quint32 number);
    void sendNever(const std::function<void(quint32, const numberedreplies::Reply&)>& sending);
    static QString senderOf(quint32 number);
    void makeLink();
    void aim(); // the link at the first of the senders

    std::vector<std::unique_ptr<QUdpSocket>> sockets; // the first gets the commands
    int restartsOfLink = 0;
};

/// What stream links have in common: the faults of a stream.
class StreamPeer : public DevicePeer
{
public:
    StreamPeer(numberedreplies::Link link, const QString& name, SoakHost& host, quint64 seed);

protected:
    /// Sends bytes in one piece; \a endsReply: nothing belongs directly behind them.
    virtual void put(const QByteArray& bytes, bool endsReply) = 0;
    virtual int longestPiece() const = 0; ///< that the link gets at once
    virtual int pieceLength() = 0;        ///< of a split reply

    void sendWhole() override;
    int routeOf(const numberedreplies::Reply& reply) const override;

    /// Half a reply before the link is restarted, the other half behind it.
    void restartInTheMiddle(const std::function<void()>& restarting);

private:
    void sendWhole(quint32 number);
    void sendSplit();
    void sendInTime(quint32 number, const std::function<void(const QByteArray&)>& sending);
    void withholdBlock();
    bool isBinary() const { return kind == numberedreplies::Link::Vela; }
    quint64 givenUp() const { return counters->refusals(LinkEvent::Check::BlockMissing); }
    quint64 refusedBlocks() const
    {
        return counters->refusals(LinkEvent::Check::BlockChecksum) + givenUp();
    }
};

class SerialLinePeer final : public StreamPeer
{
public:
    SerialLinePeer(numberedreplies::Link link, const QString& name, SoakHost& host, quint64 seed);

private:
    void open() override;
    void restart() override;
    void close() override;
    void put(const QByteArray& bytes, bool endsReply) override;
    int longestPiece() const override { return 1500; }
    int pieceLength() override { return 1 + random.below(12); }
    QByteArray incoming() override;
    void stamp(const numberedreplies::Reply& reply, quint32 number,
               model_Protocoldata& record) const override;

    void openLink();

    std::optional<SerialPeer> line;
    QString origin; // the host's thread
};

class UsbPeer final : public StreamPeer
{
public:
    UsbPeer(HidTestbed& testbed, SoakHost& host, quint64 seed);

private:
    void open() override;
    void restart() override;
    void close() override;
    void put(const QByteArray& bytes, bool endsReply) override;
    bool mayGoOn() const override { return ledger.awaited() < 8; }
    int longestPiece() const override { return EmulatedHid::reportData; }
    int pieceLength() override { return 20 + random.below(40); }
    QByteArray incoming() override;
    QByteArray expected(quint32 number) const override;
    void stamp(const numberedreplies::Reply& reply, quint32 number,
               model_Protocoldata& record) const override;

    void plugIn();
    void openLink();

    HidTestbed& testbed;
    std::unique_ptr<EmulatedHid> hid;
    std::mutex lock; // a leaf: arrived
    std::string arrived;
};
