// SPDX-License-Identifier: MIT
#pragma once

#include "devicecodec.h"

#include <QByteArray>

#include <optional>
#include <vector>

/// How a medium carries bytes.
enum class Medium {
    Datagrams, ///< every write arrives as one piece; a block is a datagram of its own
    Stream,    ///< writes arrive split and joined at any byte
};

/// One command as it arrived at the device.
struct DeviceCommand {
    devicecodec::Head head;
    QByteArray block; ///< may be shorter than announced; of an on-screen display the whole frame
};

/// Cuts commands out of what a medium delivers, and resynchronises after noise.
///
/// A text command announces its block in DAT3 and DAT4, but not every command that has them set
/// sends one. On a stream what follows is therefore the block unless it is another command; with
/// datagrams a block shares the head's datagram and continues in the next one after each of 540
/// bytes. An on-screen-display frame, which is the block here, announces no length at all. What is
/// still open when the host has fallen silent is complete as it is: settle.
class CommandReader
{
public:
    /// \a dataLength, for on-screen-display frames: each has 8 bytes and these. Without it a frame
    /// ends when the host falls silent.
    CommandReader(devicecodec::Framing framing, Medium medium,
                  std::optional<int> dataLength = std::nullopt);

    /// Takes what has arrived (one datagram, or any piece of a stream) and returns the commands
    /// that are complete now.
    std::vector<DeviceCommand> take(const QByteArray& bytes);

    /// The command that still waits for the rest of its block.
    std::optional<DeviceCommand> settle();

    bool isOpen() const;                        ///< whether there is something to settle
    qint64 noise() const { return noiseBytes; } ///< bytes that belonged to no command

private:
    void takeDatagram(const QByteArray& bytes, std::vector<DeviceCommand>& complete);
    void cutStream(std::vector<DeviceCommand>& complete);
    void cutOsdFrames(std::vector<DeviceCommand>& complete);
    bool anotherCommandFollows() const;
    bool cutHead();
    bool cutBlock();
    void drop(int count);
    int missing() const;

    devicecodec::Framing framing;
    Medium medium;
    std::optional<int> dataLength;
    QByteArray pending; // stream: not cut yet
    std::optional<DeviceCommand> current;
    qint64 noiseBytes = 0;
};
