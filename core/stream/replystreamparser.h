// SPDX-License-Identifier: MIT
#pragma once

#include "core_manage_export.h"
#include "model_protocoldata.h"

#include <QByteArray>

#include <memory>
#include <mutex>

class ReplyFormat;
class ReplyStream;

/// Turns received bytes into reply records: a base of every stream link, beside ICoreBase. The
/// bytes come in pieces of any size, with noise between the replies.
///
/// One pass of the loop looks at the first 1024 bytes of the receive buffer and takes one reply at
/// most. It resynchronises by dropping what is before a start mark, and one byte of each candidate
/// that is no reply.
///
/// Any thread may call any operation, and none blocks unless it says so. Those that consume are for
/// the parsing thread, or for one other thread while there is none.
class CORE_MANAGE_EXPORT ReplyStreamParser
{
public:
    /// \a replies must live for ever.
    ReplyStreamParser(const ReplyFormat& replies, std::shared_ptr<ReplyStream> bytes);
    ReplyStreamParser(const ReplyStreamParser&) = delete;
    ReplyStreamParser& operator=(const ReplyStreamParser&) = delete;

    /// Appends received bytes to the receive buffer, whatever its size.
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

    /// Decodes one reply that has been cut out already. False, with \a record untouched, if its
    /// checksum is wrong or \a record is null.
    bool getArrayData(QByteArray frame, model_Protocoldata* record);

    /// Appends a record to biz_CMDSWork::receivequeueHexCmd and raises the flag. Waits for the
    /// host's locks.
    void addToReceivedQueue(model_Protocoldata record);

    /// Sets biz_CMDSWork::bRetFlag. Waits for its lock.
    void setRetFlagStatus(bool on);

    /// The parsing loop, on the calling thread, until the run flag is clear: a pause (3 ms, USB 20)
    /// and a pass. While 16 MiB of replies wait for the host it makes no pass.
    void td_dealDataFunc();

    /// One pass of the loop without its pause. Waits as checkCMD.
    void pass();

protected:
    std::shared_ptr<ReplyStream> stream() const; ///< the current one, never null

    const ReplyFormat& format;            ///< how replies are found and decoded
    mutable std::mutex streamLock;        ///< which stream is the current one, its stamps
    std::shared_ptr<ReplyStream> current; ///< never null
};
