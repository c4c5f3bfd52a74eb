// SPDX-License-Identifier: MIT
#pragma once

#include "outcome.h"
#include "silence.h"
#include "waiting.h"

/// Sends commands over an open link, one after the other, and waits for the replies to each.
///
/// A reply does not tell which command it answers. So whatever the device sends while a command is
/// awaiting its reply counts as that.
class Conversation
{
public:
    /// When a command is answered, and when it is given up.
    struct Terms {
        QString link;                           ///< what it is called
        std::shared_ptr<const Silence> silence; ///< what has come over it, from its opening on
        FieldSet fields;                        ///< of its commands
        bool broadcast = false;  ///< whoever answers until the time-out, if \a replies is 0
        qint64 timeoutMs = 2000; ///< of each try; 0: no reply is awaited
        qint64 tries = 1;        ///< how often at most it is sent
        qint64 replies = 0;      ///< how many are wanted of each device; 0: one
    };

    /// Both must outlive this object.
    Conversation(DeviceLink& openLink, Terms conditions, const Interrupt& interruption);

    /// Sends a command and waits until it is answered or given up.
    Outcome exchange(Command command);

    /// How many replies came since the last exchange, when no command awaited one.
    qint64 takeUnawaited();

    /// What send prints as JSON of the outcome of the last exchange, but whether it is a success.
    QJsonObject json(const Command& command, const Outcome& outcome) const;

private:
    qint64 repliesOf(const QString& device) const;
    bool hasReplied(const QString& device) const;
    QString troubleOf(const QString& device) const;
    bool isOver() const;
    bool isAnswered() const;
    QStringList silentDevices() const;
    void takeReplies();
    WaitEnd waitForReplies();
    QString failure(WaitEnd end) const;
    QString failuresOfDevices() const;

    DeviceLink& open;
    const Terms terms;
    const Interrupt& interrupt;
    const qint64 wanted; // replies, of each device; 0: as many as come

    // Of the command in hand:
    QStringList devices;   // that are each to reply; an empty name: whoever does
    QStringList strangers; // who else answered
    Outcome outcome;
};
