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
constexpr int datagramLimit = 32767; // the host reads a greater length as negative

int askedFor(const Head& command)
{
    return command.dat4 << 8 | command.dat3;
}

void spoilLast(QByteArray& bytes)
{
    if (!bytes.isEmpty()) {
        const auto last = bytes.size() - 1;
        bytes[last] = static_cast<char>(bytes.at(last) + 1);
    }
}

} // namespace

SimulatedDevice::SimulatedDevice(const Settings& chosen, std::shared_ptr<Chances> shared)
    : settings(chosen),
      chances(shared
                  ? std::move(shared)
                  : std::make_shared<Chances>(Chances{chosen.faults, SeededRandom(chosen.seed)})),
      reader(chosen.framing, chosen.medium, chosen.dataLength)
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
    const int announced = datagrams ? std::min(asked, datagramLimit) : asked;
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
    const int start = chances->random.below(256);
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
    const bool isOsd = settings.framing == Framing::Osd;
    Answer answer;
    answer.pieces =
        isOsd ? std::vector<Emission>{{"OK" + command.block.left(1), {}}} : reply(command.head);
    if (settings.answers) {
        settings.answers->answer(command, answer);
    }
    Exchange exchange;
    exchange.command = std::move(command);
    exchange.answer = std::move(answer.pieces);
    own = answer.faults;
    isOsd ? spoilAcknowledgement(exchange) : spoil(exchange);
    return exchange;
}

std::vector<Emission> SimulatedDevice::reply(const Head& command)
{
    const auto length = blockLength(command);
    std::vector<Emission> pieces{
        {devicecodec::encodeReply(devicecodec::replyTo(command, length, settings.framing),
                                  settings.framing),
         {}}};
    if (length) {
        pieces.push_back({makeBlock(*length), {}});
    }
    return pieces;
}

void SimulatedDevice::spoil(Exchange& exchange)
{
    auto& answer = exchange.answer;
    const bool hasBlock = answer.size() > 1;
    if (!answer.empty()) {
        spoilReply(answer[0].bytes, exchange);
        if (hasBlock) {
            spoilBlock(answer[1].bytes, exchange);
            if (answer[1].bytes.isEmpty()) {
                answer.erase(answer.begin() + 1);
            }
        }
        if (settings.medium == Medium::Stream) {
            spoilStream(exchange, hasBlock);
        }
        spoilOrder(exchange, hasBlock);
        if (strikes(Fault::Drop, exchange)) {
            answer.clear();
            return;
        }
    }
    if (settings.medium == Medium::Stream) {
        spoilPieces(exchange);
    }
}

// No other fault can show when nothing is answered.
void SimulatedDevice::spoilAcknowledgement(Exchange& exchange)
{
    if (strikes(Fault::Reset, exchange) || strikes(Fault::Drop, exchange)) {
        exchange.answer.clear();
        return;
    }
    if (!exchange.answer.empty()) {
        spoilOrder(exchange, false);
    }
    spoilPieces(exchange);
}

// The amount if the fault strikes, 0 for a fault that has none.
std::optional<int> SimulatedDevice::strikes(Fault fault, Exchange& exchange)
{
    for (Faults* const faults : {own, &chances->faults}) {
        if (faults != nullptr && faults->strikes(fault, chances->random)) {
            exchange.faults.push_back(fault);
            return faults->amount(fault);
        }
    }
    return std::nullopt;
}

void SimulatedDevice::spoilReply(QByteArray& reply, Exchange& exchange)
{
    if (strikes(Fault::WrongChecksum, exchange)) {
        if (settings.framing == Framing::Text && reply.size() >= devicecodec::textHeadSize) {
            constexpr int digits = 16;
            QByteArray body = QByteArray::fromHex(reply.mid(2, digits));
            spoilLast(body);
            reply.replace(2, digits, body.toHex());
        } else {
            spoilLast(reply);
        }
    }
    if (const auto count = strikes(Fault::Truncate, exchange)) {
        reply.chop(qMin(*count, reply.size() - 1));
    }
    if (const auto count = strikes(Fault::Oversize, exchange)) {
        reply.append(QByteArray(*count, '\0'));
    }
}

void SimulatedDevice::spoilBlock(QByteArray& block, Exchange& exchange)
{
    if (settings.medium == Medium::Stream && strikes(Fault::BlockChecksum, exchange)) {
        spoilLast(block);
    }
    if (const auto count = strikes(Fault::ShortBlock, exchange)) {
        block.chop(*count);
    }
    if (const auto count = strikes(Fault::LongBlock, exchange)) {
        block.append(QByteArray(*count, '\xee'));
    }
}

// To the host of an on-screen display they never look like an acknowledgement.
QByteArray SimulatedDevice::randomBytes(int count)
{
    QByteArray bytes;
    for (int i = 0; i < count; ++i) {
        bytes.append(static_cast<char>(chances->random.below(256)));
    }
    return settings.framing == Framing::Osd ? bytes.replace('O', '.').replace('K', '.') : bytes;
}

// What a line does to an answer that is still a reply and its block.
void SimulatedDevice::spoilStream(Exchange& exchange, bool hasBlock)
{
    auto& answer = exchange.answer;
    if (const auto count = strikes(Fault::Noise, exchange)) {
        QByteArray& reply = answer.front().bytes;
        const QByteArray noise = randomBytes(*count);
        reply.insert(1 + chances->random.below(qMax(1, reply.size() - 1)), noise);
    }
    if (hasBlock) {
        if (const auto late = strikes(Fault::LateBlock, exchange)) {
            answer.back().after = std::chrono::milliseconds(*late);
        }
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
    if (const auto count = strikes(Fault::Garbage, exchange)) {
        answer.insert(answer.begin(), Emission{randomBytes(*count), {}});
    }
    if (const auto times = strikes(Fault::Flood, exchange)) {
        exchange.times = *times;
    }
    if (const auto late = strikes(Fault::Delay, exchange)) {
        answer.front().after = std::chrono::milliseconds(*late);
    }
}

// How the bytes of the answer are cut into writes.
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
    if (strikes(Fault::HangUp, exchange) && !answer.empty()) {
        answer = {Emission{joined().left(qMax(1, joined().size() / 2)), answer.front().after}};
        exchange.times = 1;
    }
    if (answer.empty()) {
        return;
    }
    if (const auto apart = strikes(Fault::Split, exchange)) {
        std::vector<Emission> bytes;
        for (const char byte : joined()) {
            bytes.push_back({QByteArray(1, byte), std::chrono::milliseconds(*apart)});
        }
        if (!bytes.empty()) {
            bytes.front().after += answer.front().after; // a delay stays
            answer = bytes;
        }
    }
    if (strikes(Fault::Glue, exchange)) {
        answer = {Emission{joined(), answer.front().after}};
    }
}
