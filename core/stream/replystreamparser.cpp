// SPDX-License-Identifier: MIT
#include "replystreamparser.h"

#include "replyqueue.h"
#include "replystream.h"

#include <thread>

namespace
{

constexpr std::chrono::milliseconds exitPause{5};

} // namespace

ReplyStreamParser::ReplyStreamParser(std::shared_ptr<ReplyStream> first) : current(std::move(first))
{
}

ReplyStreamParser::~ReplyStreamParser()
{
    current->setDealFlag(false);
}

std::shared_ptr<ReplyStream> ReplyStreamParser::stream() const
{
    const std::lock_guard lock(streamLock);
    return current;
}

bool ReplyStreamParser::startParsing()
{
    return ReplyStream::startParser(stream());
}

void ReplyStreamParser::stopParsing(std::chrono::milliseconds patience)
{
    stop(patience, false);
}

void ReplyStreamParser::awaitParsingEnd(std::chrono::milliseconds patience)
{
    stop(patience, true);
}

void ReplyStreamParser::stop(std::chrono::milliseconds patience, bool onlyForTheHost)
{
    const auto stopped = stream();
    stopped->setDealFlag(false);
    auto since = std::chrono::steady_clock::now();
    while (stopped->hasParser()) {
        const auto now = std::chrono::steady_clock::now();
        if (onlyForTheHost && !stopped->isHandingOn()) {
            since = now;
        } else if (now - since >= patience) {
            const std::lock_guard lock(streamLock);
            current = stopped->successor();
            return;
        }
        std::this_thread::sleep_for(exitPause);
    }
}

bool ReplyStreamParser::isParsing() const
{
    return stream()->hasParser();
}

void ReplyStreamParser::setOriginName(const QString& name)
{
    const std::lock_guard lock(streamLock);
    current->setOriginName(name);
}

void ReplyStreamParser::setOriginType(model_GlobalEnum::DeviceType type)
{
    const std::lock_guard lock(streamLock);
    current->setDeviceType(type);
}

void ReplyStreamParser::appendBuffData(QByteArray data)
{
    stream()->received().append(data);
}

QByteArray ReplyStreamParser::getBuffData(unsigned short count)
{
    return stream()->received().peek(count);
}

QByteArray ReplyStreamParser::takeBuffData(unsigned short count)
{
    return stream()->received().take(count);
}

void ReplyStreamParser::setDealFlag(bool on)
{
    stream()->setDealFlag(on);
}

bool ReplyStreamParser::isFindStdCmdPreFlag(QByteArray data)
{
    return stream()->isFindStdCmdPreFlag(data);
}

bool ReplyStreamParser::checkCMD(QByteArray data)
{
    return stream()->checkCMD(data);
}

bool ReplyStreamParser::checkBlock(model_Protocoldata record, unsigned short length)
{
    return stream()->checkBlock(record, length);
}

bool ReplyStreamParser::getArrayData(QByteArray frame, model_Protocoldata* record)
{
    return record != nullptr && stream()->getArrayData(frame, *record);
}

void ReplyStreamParser::addToReceivedQueue(model_Protocoldata record)
{
    replyqueue::append(std::move(record));
}

void ReplyStreamParser::setRetFlagStatus(bool on)
{
    replyqueue::setRetFlag(on);
}

void ReplyStreamParser::td_dealDataFunc()
{
    stream()->parse();
}
