// SPDX-License-Identifier: MIT
#include "simulateddevice.h"

#include <algorithm>

namespace
{

using devicecodec::Framing;
using devicecodec::Head;

constexpr int longFixedBlock = 145;
constexpr int fixedBlock = 129;
constexpr int shortFixedBlock = 33;
constexpr int mostOnDatagrams = 32767; // the host reads a longer one as negative

int askedFor(const Head& command)
{
    return command.dat4 << 8 | command.dat3;
}

void spoilLast(QByteArray& bytes)
{
    const int last = bytes.size() - 1;
    bytes[last] = static_cast<char>(bytes.at(last) + 1);
}

} // namespace

SimulatedDevice::SimulatedDevice(const Settings& chosen)
    : settings(chosen), reader(chosen.framing, chosen.medium), random(chosen.seed)
{
}

std::vector<Exchange> SimulatedDevice::receive(const QByteArray& bytes)
{
    std::vector<Exchange> exchanges;
    for (DeviceCommand& command : reader.take(bytes)) {
        add(exchanges, std::move(command));
    }
    return exchanges;
}

std::vector<Exchange> SimulatedDevice::settle()
{
    std::vector<Exchange> exchanges;
    if (auto command = reader.settle()) {
        add(exchanges, std::move(*command));
    }
    if (held) {
        exchanges.push_back(std::move(*held));
        held.reset();
    }
    return exchanges;
}

void SimulatedDevice::add(std::vector<Exchange>& exchanges, DeviceCommand command)
{
    Exchange next = answer(std::move(command));
    if (held) {
        if (next.answer.empty()) {
            next.answer.push_back({});
        }
        next.answer.front().bytes.prepend(held->answer.front().bytes);
        held->answer.clear();
        exchanges.push_back(std::move(*held));
        held.reset();
    }
    const auto& faults = next.faults;
    const bool waits = !next.answer.empty() &&
                       std::find(faults.begin(), faults.end(), Fault::Glue) != faults.end();
    if (waits) {
        held = std::move(next);
    } else {
        exchanges.push_back(std::move(next));
    }
}

std::optional<int> SimulatedDevice::blockLength(const Head& command) const
{
    const int asked = askedFor(command);
    if (settings.framing == Framing::Binary) {
        return asked > 0 ? std::optional(asked) : std::nullopt;
    }
    const bool datagrams = settings.medium == Medium::Datagrams;
    const int announced = datagrams ? std::min(asked, mostOnDatagrams) : asked;
    const int kind = command.cmd << 8 | command.dat1;
    switch (kind) {
    case 0x8b05:
        return longFixedBlock;
    case 0x6909:
        return settings.shortBlock ? shortFixedBlock : fixedBlock;
    case 0x8b09:
    case 0x7723:
        return fixedBlock;
    case 0x790c:
        return std::nullopt;
    case 0x7909:
        if (datagrams) {
            return std::nullopt;
        }
        break;
    case 0xf140:
        return announced > 0 ? std::optional(announced) : std::nullopt;
    default:
        break;
    }
    if (command.cmd == 0x79 || command.cmd == 0xf1 || kind == 0x8e27) {
        return announced > 0 ? announced : settings.announcedLength;
    }
    return std::nullopt;
}

QByteArray SimulatedDevice::makeBlock(int length)
{
    QByteArray block(length, Qt::Uninitialized);
    const int start = random.below(256);
    for (int i = 0; i < length; ++i) {
        block[i] = static_cast<char>(start + i);
    }
    if (settings.medium == Medium::Stream) {
        block[length - 1] = static_cast<char>(devicecodec::checksum(block.left(length - 1)));
    }
    return block;
}

Exchange SimulatedDevice::answer(DeviceCommand command)
{
    Exchange exchange;
    Head reply = command.head;
    exchange.command = std::move(command);
    const auto length = blockLength(reply);
    reply.blockLength = static_cast<quint16>(length.value_or(0));
    if (settings.framing == Framing::Text && length) {
        reply.dat3 = static_cast<quint8>(*length & 0xff);
        reply.dat4 = static_cast<quint8>(*length >> 8);
    }
    QByteArray block = length ? makeBlock(*length) : QByteArray();
    QByteArray head = devicecodec::encodeReply(reply, settings.framing);
    spoilReply(head, exchange);
    if (length) {
        spoilBlock(block, exchange);
    }
    exchange.answer.push_back({head, {}});
    if (!block.isEmpty()) {
        exchange.answer.push_back({block, {}});
    }
    if (settings.medium == Medium::Stream) {
        spoilStream(exchange, length.has_value());
    }
    spoilOrder(exchange, length.has_value());
    if (settings.medium == Medium::Stream) {
        spoilPieces(exchange);
    }
    return exchange;
}

bool SimulatedDevice::strikes(Fault fault, Exchange& exchange)
{
    const bool struck = settings.faults.strikes(fault, random);
    if (struck) {
        exchange.faults.push_back(fault);
    }
    return struck;
}

void SimulatedDevice::spoilReply(QByteArray& reply, Exchange& exchange)
{
    if (strikes(Fault::WrongChecksum, exchange)) {
        if (settings.framing == Framing::Text) {
            constexpr int digits = 16;
            QByteArray body = QByteArray::fromHex(reply.mid(2, digits));
            spoilLast(body);
            reply.replace(2, digits, body.toHex());
        } else {
            spoilLast(reply);
        }
    }
    if (strikes(Fault::Truncate, exchange)) {
        reply.chop(std::min(settings.faults.amount(Fault::Truncate), reply.size() - 1));
    }
    if (strikes(Fault::Oversize, exchange)) {
        reply.append(QByteArray(settings.faults.amount(Fault::Oversize), '\0'));
    }
}

void SimulatedDevice::spoilBlock(QByteArray& block, Exchange& exchange)
{
    if (settings.medium == Medium::Stream && strikes(Fault::BlockChecksum, exchange)) {
        spoilLast(block);
    }
    if (strikes(Fault::ShortBlock, exchange)) {
        block.chop(settings.faults.amount(Fault::ShortBlock));
    }
    if (strikes(Fault::LongBlock, exchange)) {
        block.append(QByteArray(settings.faults.amount(Fault::LongBlock), '\xee'));
    }
}

QByteArray SimulatedDevice::randomBytes(int count)
{
    QByteArray bytes;
    for (int i = 0; i < count; ++i) {
        bytes.append(static_cast<char>(random.below(256)));
    }
    return bytes;
}

// What a line does to an answer that is still a reply and its block.
void SimulatedDevice::spoilStream(Exchange& exchange, bool hasBlock)
{
    auto& answer = exchange.answer;
    if (strikes(Fault::Noise, exchange)) {
        QByteArray& reply = answer.front().bytes;
        const QByteArray noise = randomBytes(settings.faults.amount(Fault::Noise));
        reply.insert(1 + random.below(std::max(1, reply.size() - 1)), noise);
    }
    if (hasBlock && strikes(Fault::LateBlock, exchange)) {
        answer.back().after = std::chrono::milliseconds(settings.faults.amount(Fault::LateBlock));
    }
}

// How the answer, whatever it is by now, is cut into writes.
void SimulatedDevice::spoilPieces(Exchange& exchange)
{
    auto& answer = exchange.answer;
    const auto joined = [&answer] {
        QByteArray all;
        for (const Emission& emission : answer) {
            all.append(emission.bytes);
        }
        return all;
    };
    if (answer.empty()) {
        return;
    }
    if (strikes(Fault::HangUp, exchange)) {
        answer = {Emission{joined().left(std::max(1, joined().size() / 2)), {}}};
        exchange.times = 1;
    }
    if (strikes(Fault::Split, exchange)) {
        std::vector<Emission> bytes;
        for (const char byte : joined()) {
            const std::chrono::milliseconds apart(settings.faults.amount(Fault::Split));
            bytes.push_back({QByteArray(1, byte), apart});
        }
        answer = bytes;
    }
    if (strikes(Fault::Glue, exchange)) {
        answer = {Emission{joined(), {}}};
    }
}

void SimulatedDevice::spoilOrder(Exchange& exchange, bool hasBlock)
{
    auto& answer = exchange.answer;
    if (hasBlock && strikes(Fault::BlockFirst, exchange)) {
        std::reverse(answer.begin(), answer.end());
    }
    if (strikes(Fault::Duplicate, exchange)) {
        std::vector<Emission> doubled;
        for (const Emission& emission : answer) {
            doubled.insert(doubled.end(), 2, emission);
        }
        answer = doubled;
    }
    if (strikes(Fault::Garbage, exchange)) {
        const QByteArray garbage = randomBytes(settings.faults.amount(Fault::Garbage));
        answer.insert(answer.begin(), Emission{garbage, {}});
    }
    if (strikes(Fault::Flood, exchange)) {
        exchange.times = settings.faults.amount(Fault::Flood);
    }
    if (strikes(Fault::Delay, exchange)) {
        answer.front().after = std::chrono::milliseconds(settings.faults.amount(Fault::Delay));
    }
    if (strikes(Fault::Drop, exchange)) {
        answer.clear();
    }
}
