// SPDX-License-Identifier: MIT
#pragma once

#include "commandreader.h"
#include "faults.h"

#include <QByteArray>

#include <chrono>
#include <vector>

/// One write of the device's answer.
struct Emission {
    QByteArray bytes;
    std::chrono::milliseconds after{0}; ///< pause before it, counted from the write before
};

/// What a device says to one command.
struct Answer {
    /// In order: the reply as one piece, its block as the next if it has one, then anything else.
    /// Faults of replies strike the first piece, faults of blocks the second. On datagrams each
    /// piece is a datagram; on a stream a block ends with its checksum. Empty: silence.
    std::vector<Emission> pieces;
    Faults* faults = nullptr; ///< besides those of the device; belongs to the source, may be null
};

/// Where a simulated device has its answers from, if not from itself: give one to
/// SimulatedDevice::Settings::answers. It works on every medium.
///
/// One object serves all connections of a simulation, so it is the device's memory: states,
/// counters, what was answered last. It is called on the simulation's thread, once for each
/// command, in the order in which they are complete, and must not block. To answer later, give the
/// first piece a pause; the answers to other commands go on meanwhile.
class AnswerSource
{
public:
    virtual ~AnswerSource() = default;

    /// Turns \a answer, which is what the device says by itself, into what it is to say. Left as it
    /// is, it is said. A command that was recorded as bytes compares by its fields once
    /// devicecodec::decodeCommand has read it; of an on-screen display, \a command has the whole
    /// frame as its block.
    virtual void answer(const DeviceCommand& command, Answer& answer) = 0;
};
