// SPDX-License-Identifier: MIT
#pragma once

#include "answersource.h"
#include "commandreader.h"
#include "devicecodec.h"
#include "faults.h"

#include <QByteArray>

#include <memory>
#include <optional>
#include <vector>

/// One command and what the device does about it.
struct Exchange {
    DeviceCommand command;
    std::vector<Emission> answer; ///< in order; empty if nothing is sent
    int times = 1;                ///< how often the whole answer is sent
    std::vector<Fault> faults;    ///< those that struck
};

/// The faults that are still to strike, and the random numbers that decide.
struct Chances {
    Faults faults;
    SeededRandom random;
};

/// A device without its wire: commands go in as bytes, answers come out as writes to be made.
///
/// Every command is answered with a standard reply that echoes it. Where the reply's kind has a
/// block, that follows: on datagrams as a write of its own, raw; on a stream its last byte is the
/// checksum of the others.
///
/// | CMD, DAT1                                  | block                                          |
/// |--------------------------------------------|------------------------------------------------|
/// | 0x8B 0x05                                  | 145 bytes                                      |
/// | 0x8B 0x09, 0x77 0x23, 0x69 0x09            | 129 bytes (0x69: 33 with shortBlock)           |
/// | 0x79 (not 0x0C, on datagrams not 0x09),    | as many as the command's DAT3 and DAT4 ask     |
/// | 0x8E 0x27, 0xF1                            | for; where they ask for none, announcedLength, |
/// |                                            | but none for 0xF1 0x40                         |
/// | any, in binary framing                     | as many as DAT3 and DAT4 ask for               |
///
/// The bytes of a block count upwards from a random start. A command of an on-screen display is
/// answered with "OK" and its first byte. An AnswerSource may say something else. The same
/// settings, seed and commands give the same answers. One thread; no I/O, no clock.
class SimulatedDevice
{
public:
    struct Settings {
        devicecodec::Framing framing = devicecodec::Framing::Text;
        Medium medium = Medium::Datagrams;
        Faults faults;
        quint64 seed = 1;
        int announcedLength = 64; ///< 1 to 32767
        bool shortBlock = false;
        std::optional<int> dataLength;         ///< see CommandReader
        std::shared_ptr<AnswerSource> answers; ///< null: as the table says
    };

    /// \a chances, which several devices may share, replace the faults and seed of \a settings.
    explicit SimulatedDevice(const Settings& settings, std::shared_ptr<Chances> chances = {});

    /// Takes what has arrived and returns the exchanges that are due.
    std::vector<Exchange> receive(const QByteArray& bytes);

    /// To be called when the host has fallen silent: answers a command whose block is incomplete,
    /// and releases an answer that waits for the next one.
    std::vector<Exchange> settle();

    /// Whether settle has something to do.
    bool isWaiting() const { return reader.isOpen() || held.has_value(); }
    qint64 noise() const { return reader.noise(); } ///< bytes that were no command

    Faults& faults() { return chances->faults; } ///< to be changed between commands

private:
    Exchange answer(DeviceCommand command);
    std::vector<Emission> reply(const devicecodec::Head& command);
    void spoil(Exchange& exchange);
    void spoilAcknowledgement(Exchange& exchange);
    std::optional<int> blockLength(const devicecodec::Head& command) const;
    QByteArray makeBlock(int length);
    std::optional<int> strikes(Fault fault, Exchange& exchange);
    void spoilReply(QByteArray& reply, Exchange& exchange);
    void spoilBlock(QByteArray& block, Exchange& exchange);
    void spoilStream(Exchange& exchange, bool hasBlock);
    void spoilOrder(Exchange& exchange, bool hasBlock);
    void spoilPieces(Exchange& exchange);
    void add(std::vector<Exchange>& exchanges, DeviceCommand command);
    QByteArray randomBytes(int count);

    const Settings settings;
    const std::shared_ptr<Chances> chances;
    CommandReader reader;
    std::optional<Exchange> held; // its answer waits for the next one
    Faults* own = nullptr;        // of the answer that is being made
};
