// SPDX-License-Identifier: MIT
#include "commandreader.h"

#include <algorithm>

namespace
{

// The host cuts a frame into datagrams of this size.
constexpr int fullDatagram = 540;
const QByteArray textMark = QByteArrayLiteral("<T");

} // namespace

CommandReader::CommandReader(devicecodec::Framing chosenFraming, Medium chosenMedium)
    : framing(chosenFraming), medium(chosenMedium)
{
}

std::vector<DeviceCommand> CommandReader::take(const QByteArray& bytes)
{
    std::vector<DeviceCommand> complete;
    if (medium == Medium::Datagrams) {
        takeDatagram(bytes, complete);
    } else {
        pending.append(bytes);
        cutStream(complete);
    }
    return complete;
}

std::optional<DeviceCommand> CommandReader::settle()
{
    std::optional<DeviceCommand> command;
    std::swap(command, current);
    return command;
}

int CommandReader::missing() const
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
        if (!current) {
            going = cutHead();
        } else if (missing() <= 0 || anotherCommandFollows()) {
            complete.push_back(*settle());
        } else {
            going = cutBlock();
        }
    }
}

bool CommandReader::anotherCommandFollows() const
{
    return framing == devicecodec::Framing::Text && current->block.isEmpty() &&
           devicecodec::decodeCommand(pending, framing);
}

// True if something was cut and there may be more.
bool CommandReader::cutHead()
{
    if (framing == devicecodec::Framing::Text) {
        const int start = pending.indexOf(textMark.at(0));
        drop(start < 0 ? pending.size() : start);
        if (!pending.isEmpty() && !pending.startsWith(textMark.left(pending.size()))) {
            drop(1);
            return true;
        }
    }
    if (pending.size() < devicecodec::headSize(framing)) {
        return false;
    }
    const auto head = devicecodec::decodeCommand(pending, framing);
    if (!head) {
        drop(1);
        return true;
    }
    current = DeviceCommand{*head, {}};
    pending.remove(0, devicecodec::headSize(framing));
    return true;
}

bool CommandReader::cutBlock()
{
    const int available = std::min(missing(), pending.size());
    const bool mayBeHead = framing == devicecodec::Framing::Text && current->block.isEmpty() &&
                           pending.size() < devicecodec::textHeadSize &&
                           pending.startsWith(textMark.left(pending.size()));
    if (available == 0 || mayBeHead) {
        return false;
    }
    current->block.append(pending.left(available));
    pending.remove(0, available);
    return true;
}

void CommandReader::drop(int count)
{
    noiseBytes += count;
    pending.remove(0, count);
}
