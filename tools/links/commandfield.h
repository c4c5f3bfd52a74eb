// SPDX-License-Identifier: MIT
#pragma once

#include "model_osdparam.h"
#include "model_protocoldata.h"

#include <QStringList>

#include <variant>
#include <vector>

/// Which fields the commands of a link have; each is one bit.
enum class FieldSet : unsigned {
    TextBody = 1,   ///< HEAD ADDR CMD DAT1 DAT2 DAT3 DAT4 and a block
    BinaryHead = 2, ///< aux1 ADDR aux3 aux4 aux5 CMD DAT1 DAT2 DAT3 DAT4 and a block
    OsdFrame = 4,   ///< ch2 ch3 ch5 ch4 ch7 ch8, data, ch9 ch10
};

/// One command as the person gave it: the record that has the link's fields is the one that counts.
struct Command {
    model_Protocoldata record;
    model_OsdParam osd;
    QStringList to; ///< which of a link's devices get it; all if there are none
    QByteArray raw; ///< not empty: the bytes that are sent as they are, whatever the records say

    /// The command of this block or data with nothing else said: DAT3 and DAT4 are its length.
    static Command of(const QByteArray& payload, FieldSet fields);
};

/// A number that a command carries: the one place that encoding, decoding, options and JSON know
/// it from. In JSON and as an option it has its name in lower case.
struct CommandField {
    const char* name;
    unsigned frames; ///< the FieldSets that have it
    std::variant<quint8 model_Protocoldata::*, quint16 model_Protocoldata::*,
                 char model_OsdParam::*>
        member;
    const char* help; ///< of its option; null: nobody sets it

    bool isIn(FieldSet fields) const { return (frames & static_cast<unsigned>(fields)) != 0; }
    int bytes() const; ///< 1 or 2
    int value(const Command& command) const;
    void set(Command& command, int value) const;

    static const std::vector<CommandField>& all(); ///< in the order of each frame
};
