// SPDX-License-Identifier: MIT
#pragma once

#include "devicetypes.h"
#include "model_globalenum.h"
#include "model_protocoldata.h"
#include "receivebuffer.h"

#include <QByteArray>
#include <QString>

#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>

/// One stream of received bytes and the parser that cuts replies out of it: the receive buffer, the
/// parsing loop with its flags, and what replies are stamped with. The bytes come in any pieces and
/// with any noise between them.
///
/// The parsing thread shares ownership of the stream and touches nothing else, so the transport may
/// go, or go on with a fresh stream, while the thread still waits for a block or for the host: what
/// it does then it does to its own stream. A stream has one parser at a time.
///
/// One pass of the loop inspects the first 1024 bytes and takes one reply at most: what is before a
/// start mark is dropped, and a candidate that turns out to be no reply costs one byte.
///
/// Any thread may append, and use the flags and the stamps. The operations that consume are for the
/// parsing thread, or for any one thread while there is none.
class ReplyStream
{
public:
    virtual ~ReplyStream();
    ReplyStream(const ReplyStream&) = delete;
    ReplyStream& operator=(const ReplyStream&) = delete;

    /// An empty stream of the same kind with the same stamps.
    std::shared_ptr<ReplyStream> successor() const;

    ReceiveBuffer& received() { return buffData; }

    /// The run flag of the parsing loop: it is looked at before each pass.
    void setDealFlag(bool on) { bDealRun.store(on, std::memory_order_relaxed); }

    /// Whether a parser is on its way or running. The parsing thread makes it false with its last
    /// access.
    bool hasParser() const { return !bDealExit.load(std::memory_order_acquire); }

    /// Whether the parser is at handing a reply on: only there may the host's code (its locks, its
    /// message handler) keep it. Everything else it does ends by itself.
    bool isHandingOn() const { return handingOn.load(std::memory_order_relaxed); }

    /// Starts a detached thread that shares ownership of \a stream and runs parse. The flags are
    /// set before it starts. False, and the flags as without a parser, when the thread is refused.
    [[nodiscard]] static bool startParser(const std::shared_ptr<ReplyStream>& stream);

    /// The parsing loop: a pause and a pass until the run flag is clear. While the replies that
    /// wait for the host are at their bound it makes no pass, and the buffer fills.
    void parse();

    /// One pass of the loop without its pause.
    void pass();

    void setDeviceType(model_GlobalEnum::DeviceType type);
    void setOriginName(const QString& name); ///< the name of the port that the bytes come from

    /// Aligns the buffer on a reply's start mark; \a data is a copy of the buffer's head. True if
    /// the buffer now begins with a mark.
    virtual bool isFindStdCmdPreFlag(const QByteArray& data) = 0;

    /// Takes one reply off the buffer, decodes it and hands it on with its block, for which it
    /// waits up to 600 ms; \a data is a copy of the buffer's head. False if there was none.
    bool checkCMD(const QByteArray& data);

    /// Takes the block of a reply off the buffer, for which it waits up to 600 ms, checks it and
    /// hands the record on. False if the block did not come or is corrupt.
    virtual bool checkBlock(model_Protocoldata& record, quint16 length) = 0;

    /// Decodes a standard reply or a head. False leaves \a record untouched.
    virtual bool getArrayData(const QByteArray& frame, model_Protocoldata& record) const = 0;

protected:
    /// How replies are found: pure functions.
    struct Search {
        int headLength; ///< bytes of a standard reply, or of a binary head
        int (*firstMark)(const char* data, int size); ///< index of the first start mark, or -1
        ReceiveBuffer::Found (*find)(const char* data, int size); ///< what one pass looks for
    };

    static constexpr int peekSize = 1024; ///< bytes that a pass looks at for a start mark
    static constexpr int longestHead = 19;

    ReplyStream(std::chrono::milliseconds pauseBetweenPasses, Search howToSearch)
        : interval(pauseBetweenPasses), search(howToSearch)
    {
    }

    virtual std::shared_ptr<ReplyStream> emptyStream() const = 0;

    /// Lets time pass: the only thing that the loop and the wait for a block do between their
    /// looks.
    virtual void pause(std::chrono::milliseconds duration);

    /// checkCMD of a head, which has the right length.
    virtual bool cut(const char* head) = 0;

    /// Drops what is before the first mark of \a data, or as much as \a data holds if there is
    /// none, in which case it returns false.
    bool skipTo(const QByteArray& data);

    /// Drops the head of \a headLength bytes at once, then takes a block of \a length bytes, if it
    /// is there within the 150 looks. If not, no more than the head is taken.
    bool awaitBlock(quint16 length, QByteArray& block, int headLength = 0);

    /// Whether the last byte of a block is the sum of the bytes before it, modulo 256. True for an
    /// empty block.
    static bool isBlockIntact(const QByteArray& block);

    QString originName() const;
    model_GlobalEnum::DeviceType originType() const;

    ReceiveBuffer buffData;

private:
    const std::chrono::milliseconds interval;
    const Search search;
    std::atomic<bool> bDealRun{false};
    std::atomic<bool> bDealExit{true};
    std::atomic<bool> handingOn{false};
    std::atomic<model_GlobalEnum::DeviceType> deviceType{devicetypes::unset};
    mutable std::mutex nameLock; // a leaf: name
    QString name;
};
