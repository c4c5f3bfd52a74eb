// SPDX-License-Identifier: MIT
#pragma once

#include "core_manage_export.h"
#include "model_globalenum.h"
#include "model_protocoldata.h"

#include <QByteArray>
#include <QString>

#include <chrono>
#include <memory>
#include <mutex>

class ReplyStream;

/// The half of a stream transport that turns received bytes into reply records: a base of every
/// such transport, beside ICoreBase. The transport appends what it receives; a parsing thread cuts
/// the replies out and hands them to the host's reply queue.
///
/// What the thread works on is a ReplyStream, which it owns together with this object. A stream
/// whose parser is not waited for is left to it, and the transport goes on with a fresh one: an old
/// parser never sees the new stream's bytes or flags.
///
/// Unless stated otherwise an operation may be called from any thread and does not block. The
/// operations that consume are the parsing thread's while there is one.
class CORE_MANAGE_EXPORT ReplyStreamParser
{
public:
    ReplyStreamParser(const ReplyStreamParser&) = delete;
    ReplyStreamParser& operator=(const ReplyStreamParser&) = delete;

    /// Appends received bytes to the receive buffer.
    void appendBuffData(QByteArray data);

    /// The first \a count bytes of the receive buffer, or all if there are fewer. Consumes nothing.
    QByteArray getBuffData(unsigned short count);

    /// Removes the first \a count bytes, or all if there are fewer, and returns them.
    QByteArray takeBuffData(unsigned short count);

    /// The run flag of the parsing loop, which looks at it before each pass.
    void setDealFlag(bool on);

    /// Aligns the receive buffer on the start of a reply. \a data is a copy of the buffer's head:
    /// what it holds before a start mark is dropped, all of it (its size modulo 65536) if it holds
    /// none. True if the buffer now begins with a start mark.
    bool isFindStdCmdPreFlag(QByteArray data);

    /// Takes one reply off the receive buffer, decodes it, waits up to 600 ms for its block and
    /// hands the record on. \a data is a copy of the buffer's head. A head that does not decode
    /// costs one byte. True if a reply was handed on complete. Waits for the host's locks, except
    /// for a text reply that is complete without a block and is no immediate one.
    bool checkCMD(QByteArray data);

    /// Takes the block of \a length bytes that follows a reply off the receive buffer, waits up to
    /// 600 ms for it, checks it and hands the record on with it. False if it did not come, which
    /// consumes nothing, or is corrupt, which consumes it. Waits for the host's locks.
    bool checkBlock(model_Protocoldata record, unsigned short length);

    /// Decodes one reply that has been cut out already. False leaves \a record untouched.
    bool getArrayData(QByteArray frame, model_Protocoldata* record);

    /// Appends a record to biz_CMDSWork::receivequeueHexCmd and raises the flag. Waits for the
    /// host's locks.
    void addToReceivedQueue(model_Protocoldata record);

    /// Sets biz_CMDSWork::bRetFlag. Waits for its lock.
    void setRetFlagStatus(bool on);

    /// The parsing loop, on the calling thread, until the run flag is clear.
    void td_dealDataFunc();

protected:
    explicit ReplyStreamParser(std::shared_ptr<ReplyStream> first);
    ~ReplyStreamParser(); ///< clears the run flag; waits for nothing

    /// Starts the parsing thread on the current stream. False if the system refuses the thread.
    [[nodiscard]] bool startParsing();

    /// Clears the run flag and looks every 5 ms whether the parser has ended, for \a patience at
    /// most. If it has not, the transport goes on with a fresh stream and leaves the old one to it.
    void stopParsing(std::chrono::milliseconds patience);

    /// Clears the run flag and looks every 5 ms until the parser has ended, however long a loaded
    /// machine takes for that. Only a parser that the host's code keeps for \a patience on end is
    /// left behind, as by stopParsing.
    void awaitParsingEnd(std::chrono::milliseconds patience);

    bool isParsing() const; ///< a parser of the current stream is on its way or running

    void setOriginName(const QString& name);               ///< names the port in every later reply
    void setOriginType(model_GlobalEnum::DeviceType type); ///< featureCode of every later reply

    /// The current stream, for a thread that appends to it and may outlive this object.
    std::shared_ptr<ReplyStream> stream() const;

private:
    void stop(std::chrono::milliseconds patience, bool onlyForTheHost);

    mutable std::mutex streamLock;        // a leaf: which stream is the current one, its stamps
    std::shared_ptr<ReplyStream> current; // never null
};
