// SPDX-License-Identifier: MIT
#include "streamlink.h"

#include "biz_cmdswork.h"
#include "callerrecord.h"
#include "commandframe.h"
#include "debugline.h"
#include "replyqueue.h"
#include "replystream.h"

namespace
{

constexpr std::chrono::milliseconds endPoll{5};

} // namespace

StreamLink::StreamLink(const ReplyFormat& replies)
    : ReplyStreamParser(replies, std::make_shared<ReplyStream>(tap)),
      cmdsWork(replyqueue::makeWork())
{
}

StreamLink::~StreamLink()
{
    setDealFlag(false);
}

void StreamLink::clearQueue()
{
    replyqueue::clearElsewhere(cmdsWork);
}

void StreamLink::setDeviceType(model_GlobalEnum::DeviceType type)
{
    const std::lock_guard lock(streamLock);
    current->setOriginType(type);
}

bool StreamLink::openSerialPort(QString /*portName*/, QSerialPort::BaudRate /*baudRate*/,
                                QSerialPort::StopBits /*stopBits*/, QSerialPort::Parity /*parity*/,
                                QSerialPort::FlowControl /*flowControl*/,
                                QSerialPort::DataBits /*dataBits*/)
{
    return false;
}

bool StreamLink::openUSB(unsigned short /*vendorId*/, unsigned short /*productId*/)
{
    return false;
}

void StreamLink::sendRecord(void* parameters, const char* text)
{
    if (const auto record = callerRecord<model_Protocoldata>(parameters)) {
        const QByteArray frame = produceCmds(*record);
        if (writeFrame(frame)) {
            qCDebug(debugLine) << textWithBytes(text, frame.left(commandframe::textLength));
        }
    }
}

bool StreamLink::startParsing()
{
    const auto parsed = stream();
    parsed->isPausing = true; // a loaded machine may start the thread late
    return replyqueue::start() && parsed->token.start([&replies = format, parsed] {
        ReplyStreamParser(replies, parsed).td_dealDataFunc();
    });
}

void StreamLink::stopParsing(std::chrono::milliseconds patience, Counts counts)
{
    using Clock = std::chrono::steady_clock;
    const auto stopped = stream();
    stopped->token.set(false);
    auto since = Clock::now();
    while (stopped->token.isRunning()) {
        if (counts == Counts::TimeInTheHost && stopped->isPausing) {
            since = Clock::now();
        } else if (Clock::now() - since >= patience) {
            const std::lock_guard lock(streamLock);
            current = stopped->successor();
            return;
        }
        stopped->token.awaitEnd(endPoll);
    }
}

bool StreamLink::isParsing() const
{
    return stream()->token.isRunning();
}
