// SPDX-License-Identifier: MIT
#include "replystreamparser.h"

#include "replyformat.h"
#include "replyqueue.h"

namespace
{

constexpr unsigned short peekSize = 1024;

} // namespace

ReplyStreamParser::ReplyStreamParser(const ReplyFormat& replies, std::shared_ptr<ReplyStream> bytes)
    : format(replies), current(std::move(bytes))
{
}

std::shared_ptr<ReplyStream> ReplyStreamParser::stream() const
{
    const std::lock_guard lock(streamLock);
    return current;
}

// With a parser of its own: this one may go on with another stream meanwhile, or be gone.
void ReplyStreamParser::td_dealDataFunc()
{
    const auto parsed = stream();
    ReplyStreamParser parser(format, parsed);
    parsed->token.run([&parser, &parsed] {
        while (parsed->token.goesOn()) {
            parsed->pause(parser.format.interval);
            if (!replyqueue::isFull()) {
                parser.pass();
            }
        }
    });
}

void ReplyStreamParser::pass()
{
    QByteArray head = getBuffData(peekSize);
    if (head.size() < format.headLength || !isFindStdCmdPreFlag(head)) {
        return;
    }
    head = getBuffData(peekSize);
    if (head.size() < format.headLength) {
        return;
    }
    if (format.isReply(head)) {
        checkCMD(head);
    } else {
        stream()->skip(1);
    }
}

void ReplyStreamParser::appendBuffData(QByteArray data)
{
    stream()->received.append(data);
}

QByteArray ReplyStreamParser::getBuffData(unsigned short count)
{
    return stream()->received.peek(count);
}

QByteArray ReplyStreamParser::takeBuffData(unsigned short count)
{
    return stream()->received.take(count);
}

void ReplyStreamParser::setDealFlag(bool on)
{
    stream()->token.set(on);
}

bool ReplyStreamParser::isFindStdCmdPreFlag(QByteArray data)
{
    return format.isFindStdCmdPreFlag(*stream(), data);
}

bool ReplyStreamParser::checkCMD(QByteArray data)
{
    return format.checkCMD(*stream(), data);
}

bool ReplyStreamParser::checkBlock(model_Protocoldata record, unsigned short length)
{
    return format.checkBlock(*stream(), std::move(record), length);
}

bool ReplyStreamParser::getArrayData(QByteArray frame, model_Protocoldata* record)
{
    model_Protocoldata decoded;
    if (record == nullptr || !format.decode(frame, decoded)) {
        return false;
    }
    *record = std::move(decoded);
    return true;
}

void ReplyStreamParser::addToReceivedQueue(model_Protocoldata record)
{
    replyqueue::append(std::move(record), *stream()->tap);
}

void ReplyStreamParser::setRetFlagStatus(bool on)
{
    replyqueue::setRetFlag(on);
}
