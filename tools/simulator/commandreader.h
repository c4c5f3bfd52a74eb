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
    QByteArray block; ///< may be shorter than announced; with Framing::Osd the whole frame
};

/// Cuts commands out of what a medium delivers, and resynchronises after noise. One thread; no I/O.
///
/// A text command announces the length of its block in DAT3 and DAT4, but not every command that
/// sets them sends a block. On a stream the bytes behind such a head are therefore the block unless
/// they are another command. On datagrams the block begins in the head's datagram; a datagram of
/// 540 bytes means that it continues in the next one. An on-screen-display frame announces no
/// length. A command that is still open when the host falls silent is complete: see settle.
class CommandReader
{
public:
    /// \a dataLength: bytes of data in each on-screen-display frame. Without it a frame ends when
    /// the host falls silent.
    CommandReader(devicecodec::Framing framing, Medium medium,
                  std::optional<int> dataLength = std::nullopt);

    /// Takes what has arrived (one datagram, or any piece of a stream) and returns the commands
    /// that are complete now.
    std::vector<DeviceCommand> take(const QByteArray& bytes);

    /// Ends the command that still waits for more bytes, and returns it.
    std::optional<DeviceCommand> settle();

    bool isOpen() const;                        ///< whether there is something to settle
    qint64 noise() const { return noiseBytes; } ///< bytes that belonged to no command

private:
    void takeDatagram(const QByteArray& bytes, std::vector<DeviceCommand>& complete);
    void cutStream(std::vector<DeviceCommand>& complete);
    void cutOsdFrames(std::vector<DeviceCommand>& complete);
    bool anotherCommandFollows() const;
    bool mayBeginText() const;
    bool cutHead();
    bool cutBlock();
    void drop(QByteArray::size_type count);
    QByteArray::size_type missing() const;

    devicecodec::Framing framing;
    Medium medium;
    std::optional<int> dataLength;
    QByteArray pending; // stream: not cut yet
    std::optional<DeviceCommand> current;
    qint64 noiseBytes = 0;
};
