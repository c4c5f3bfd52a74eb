// SPDX-License-Identifier: MIT
#pragma once

#include "model_globalenum.h"
#include "model_protocoldata.h"

#include <QByteArray>
#include <QMutex>
#include <QString>

/// The reply stream written down step by step, with a plain byte array that is copied for each look
/// and shifted by each take: the baseline that the library's parser is measured against and the
/// reference that it must agree with on every stream.
class LiteralReplyStream
{
public:
    explicit LiteralReplyStream(bool isUsb = false) : usb(isUsb) {}
    virtual ~LiteralReplyStream();
    LiteralReplyStream(const LiteralReplyStream&) = delete;
    LiteralReplyStream& operator=(const LiteralReplyStream&) = delete;

    void appendBuffData(QByteArray data);
    QByteArray getBuffData(unsigned short n);
    QByteArray takeBuffData(unsigned short n);

    void loopOnce(); ///< the loop's pause, then one pass of it

    /// One pass of the loop without its pause.
    virtual void pass();
    virtual bool isFindStdCmdPreFlag(QByteArray data);
    virtual bool checkCMD(QByteArray data);
    virtual bool checkBlock(model_Protocoldata record, unsigned short len);

    model_GlobalEnum::DeviceType deviceType = model_GlobalEnum::DeviceUnknown;
    QString portName;

protected:
    virtual void pause(int ms);
    virtual void addToReceivedQueue(model_Protocoldata record);

    /// addToReceivedQueue on a detached thread of its own.
    virtual void addToReceivedQueueElsewhere(model_Protocoldata record);

    bool awaitBlock(unsigned short len, QByteArray* block);

private:
    const bool usb;
    QMutex buffLock;
    QByteArray buffData;
};

/// The second line's replies, written down alike.
class LiteralBinaryReplyStream : public LiteralReplyStream
{
public:
    void pass() override;
    bool isFindStdCmdPreFlag(QByteArray data) override;
    bool checkCMD(QByteArray data) override;
    bool checkBlock(model_Protocoldata record, unsigned short len) override;
};
