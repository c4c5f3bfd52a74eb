// SPDX-License-Identifier: MIT
#pragma once

#include "commandfield.h"

#include <QByteArray>

/// A command as it comes over MQTT: an object in JSON whose members are the fields of the command
/// and how it is to be sent. Whoever wrote it is a stranger: nothing in it names a file, and what
/// is not expected is refused.
struct CommandMessage {
    Command command;
    int timeoutMs = 2000; ///< of each try
    int tries = 1;

    /// How many bytes a command with such a block may have.
    static int sizeLimit(int blockLimit);

    /// Throws BadInput, which names the member, what it is and what was expected.
    static CommandMessage parse(const QByteArray& payload, FieldSet fields, int blockLimit);
};
