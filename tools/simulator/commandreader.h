// SPDX-License-Identifier: MIT
#pragma once

#include "devicecodec.h"

#include <QByteArray>

#include <optional>
#include <vector>

/// How a medium carries bytes.
enum class Medium {
    Datagrams, ///< every write arrives as one piece; a block is a datagram of its own
    Stream,    ///< writes arrive cut and joined anyhow
};

/// One command as it arrived at the device.
struct DeviceCommand {
    devicecodec::Head head;
    QByteArray block; ///< what came of it: may be shorter than announced
};

/// Cuts commands out of what a medium delivers, and finds its feet again after noise.
///
/// A text command announces its block in DAT3 and DAT4, but not every command that has them set
/// sends one. On a stream what follows is therefore the block unless it is another command; with
/// datagrams a block shares the head's datagram and goes on in the next ones after each of 540
/// bytes. What is still open when the host has fallen silent is complete as it is: settle.
class CommandReader
{
public:
    CommandReader(devicecodec::Framing framing, Medium medium);

    /// Takes what has arrived (one datagram, or any piece of a stream) and returns the commands
    /// that are complete now.
    std::vector<DeviceCommand> take(const QByteArray& bytes);

    /// The command that still waits for the rest of its block.
    std::optional<DeviceCommand> settle();

    bool isOpen() const { return current.has_value(); } ///< settle would return a command
    qint64 noise() const { return noiseBytes; }         ///< bytes that belonged to no command

private:
    void takeDatagram(const QByteArray& bytes, std::vector<DeviceCommand>& complete);
    void cutStream(std::vector<DeviceCommand>& complete);
    bool anotherCommandFollows() const;
    bool cutHead();
    bool cutBlock();
    void drop(int count);
    int missing() const;

    devicecodec::Framing framing;
    Medium medium;
    QByteArray pending; // stream: not cut yet
    std::optional<DeviceCommand> current;
    qint64 noiseBytes = 0;
};
