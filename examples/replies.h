// SPDX-License-Identifier: MIT
#pragma once

#include "biz_cmdswork.h"

#include <QEventLoop>
#include <QTimer>

#include <chrono>
#include <deque>
#include <mutex>
#include <optional>
#include <utility>

/// What the links have handed to the host since it last looked.
struct Replies {
    bool wasRaised;                         ///< the flag: a sender may stop waiting
    std::deque<model_Protocoldata> records; ///< oldest at the front
};

/// Takes all replies off the queue and lowers the flag. Any thread; waits for both locks.
inline Replies takeReplies()
{
    // The queue's lock before the flag's, as the links take them. With both, no reply can come in
    // between: its flag would be lowered and its record left behind.
    const std::lock_guard queue(biz_CMDSWork::receiveHexCmdlock);
    const std::lock_guard flag(biz_CMDSWork::HexCmdlock);
    return {std::exchange(biz_CMDSWork::bRetFlag, false),
            std::exchange(biz_CMDSWork::receivequeueHexCmd, {})};
}

/// Whether this is the reply to that command. The simulated device echoes these fields; a device of
/// yours may have another rule.
inline bool answers(const model_Protocoldata& reply, const model_Protocoldata& command)
{
    return reply.CMD == command.CMD && reply.DAT1 == command.DAT1 && reply.DAT2 == command.DAT2;
}

/// Waits for the reply to a command that was just sent; other replies, late ones of earlier
/// commands for instance, are dropped. Empty after the time-out, and at once when the flag comes up
/// without a reply: the link gave it up, so it will not come. To be called on the thread that owns
/// the link, whose event loop runs meanwhile. takeReplies before the send drops what is old.
inline std::optional<model_Protocoldata> waitForReply(const model_Protocoldata& command,
                                                      std::chrono::milliseconds timeOut)
{
    std::optional<model_Protocoldata> reply;
    QEventLoop loop;
    QTimer look;
    QObject::connect(&look, &QTimer::timeout, &loop, [&] {
        const Replies come = takeReplies();
        for (const model_Protocoldata& record : come.records) {
            if (answers(record, command)) {
                reply = record;
            }
        }
        if (reply || (come.wasRaised && come.records.empty())) {
            loop.quit();
        }
    });
    look.start(std::chrono::milliseconds(2));
    QTimer::singleShot(timeOut, &loop, &QEventLoop::quit);
    loop.exec();
    return reply;
}
