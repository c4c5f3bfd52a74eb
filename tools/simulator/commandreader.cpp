// SPDX-License-Identifier: MIT
#include "commandreader.h"

#include <algorithm>
#include <utility>

namespace
{

using devicecodec::Framing;

// The host cuts a frame into datagrams of this size.
constexpr int fullDatagram = 540;
const QByteArray textMark = QByteArrayLiteral("<T");

} // namespace

CommandReader::CommandReader(Framing chosenFraming, Medium chosenMedium,
                             std::optional<int> osdDataLength)
    : framing(chosenFraming), medium(chosenMedium), dataLength(osdDataLength)
{
}

std::vector<DeviceCommand> CommandReader::take(const QByteArray& bytes)
{
    std::vector<DeviceCommand> complete;
    if (medium == Medium::Datagrams) {
        takeDatagram(bytes, complete);
        return complete;
    }
    pending.append(bytes);
    framing == Framing::Osd ? cutOsdFrames(complete) : cutStream(complete);
    return complete;
}

bool CommandReader::isOpen() const
{
    return current || (framing == Framing::Osd && !dataLength && !pending.isEmpty());
}

std::optional<DeviceCommand> CommandReader::settle()
{
    if (framing != Framing::Osd || !isOpen()) {
        return std::exchange(current, std::nullopt);
    }
    if (pending.size() < devicecodec::osdFrameSize) {
        drop(pending.size());
        return std::nullopt;
    }
    return DeviceCommand{{}, std::exchange(pending, {})};
}

void CommandReader::cutOsdFrames(std::vector<DeviceCommand>& complete)
{
    if (!dataLength) {
        return;
    }
    const int length = devicecodec::osdFrameSize + *dataLength;
    QByteArray::size_type next = 0;
    for (; pending.size() - next >= length; next += length) {
        complete.push_back({{}, pending.mid(next, length)});
    }
    pending.remove(0, next);
}

QByteArray::size_type CommandReader::missing() const
{
    return current->head.blockLength - current->block.size();
}

void CommandReader::takeDatagram(const QByteArray& bytes, std::vector<DeviceCommand>& complete)
{
    if (const auto head = devicecodec::decodeCommand(bytes, framing)) {
        if (current) {
            complete.push_back(*settle());
        }
        current = DeviceCommand{*head, bytes.mid(devicecodec::headSize(framing))};
    } else if (current) {
        current->block.append(bytes);
    } else {
        noiseBytes += bytes.size();
        return;
    }
    if (bytes.size() != fullDatagram || missing() <= 0) {
        complete.push_back(*settle());
    }
}

void CommandReader::cutStream(std::vector<DeviceCommand>& complete)
{
    for (bool going = true; going;) {
        if (current && (missing() <= 0 || anotherCommandFollows())) {
            complete.push_back(*settle());
        } else {
            going = current ? cutBlock() : cutHead();
        }
    }
}

bool CommandReader::anotherCommandFollows() const
{
    return framing == Framing::Text && current->block.isEmpty() &&
           devicecodec::decodeCommand(pending, framing);
}

bool CommandReader::mayBeginText() const
{
    return framing == Framing::Text && pending.startsWith(textMark.left(pending.size()));
}

// True if something was cut and there may be more.
bool CommandReader::cutHead()
{
    const int size = devicecodec::headSize(framing);
    if (pending.size() < size && (framing != Framing::Text || mayBeginText())) {
        return false;
    }
    if (const auto head = devicecodec::decodeCommand(pending, framing)) {
        current = DeviceCommand{*head, {}};
        pending.remove(0, size);
    } else {
        const auto next = framing == Framing::Text ? pending.indexOf(textMark.at(0), 1) : 1;
        drop(next < 0 ? pending.size() : next);
    }
    return true;
}

bool CommandReader::cutBlock()
{
    const auto available = qMin(missing(), pending.size());
    const bool mayBeHead =
        current->block.isEmpty() && mayBeginText() && pending.size() < devicecodec::textHeadSize;
    if (available == 0 || mayBeHead) {
        return false;
    }
    current->block.append(pending.left(available));
    pending.remove(0, available);
    return true;
}

void CommandReader::drop(QByteArray::size_type count)
{
    noiseBytes += count;
    pending.remove(0, count);
}
