// SPDX-License-Identifier: MIT
#pragma once

#include "faults.h"
#include "ledger.h"
#include "linkcounters.h"
#include "soakhost.h"

#include <QByteArray>
#include <QString>

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

/// The far end of one link, which sends numbered replies on a thread of its own, some of them with
/// faults, and checks that every command of the host arrives once, in order and to the byte. Its
/// link, too: a peer makes, opens, closes and destroys it, on the host's thread.
class SoakPeer
{
public:
    /// Something that is done with the next reply.
    struct Action {
        const char* name;
        int weight; ///< of 1000; the rest is sent as it should be
        std::function<void()> act;
        qint64 count = 0;
    };

    SoakPeer(QString name, SoakHost& host, quint64 seed);
    virtual ~SoakPeer() = default; ///< after join
    SoakPeer(const SoakPeer&) = delete;
    SoakPeer& operator=(const SoakPeer&) = delete;

    void start();
    void join() { thread.join(); }
    bool isDone() const { return done; }
    bool isResting() const { return resting; } ///< all is arrived, nothing is under way

    /// Sends the next command, unless the peer has them stopped. The host's thread.
    void sendCommand();

    const QString name;
    Ledger ledger;

    /// For the table: after join.
    const std::vector<Action>& faults() const { return actions; }
    qint64 restarts() const { return restartCount; }
    qint64 commands() const { return commandCount; }

protected:
    using Clock = std::chrono::steady_clock;
    using Fate = Ledger::Fate;

    static constexpr std::chrono::milliseconds interval{5}; ///< between replies, unless told else

    virtual void open() = 0;               ///< both ends, until they are connected
    virtual void restart() = 0;            ///< a fault of the whole link, then open again
    virtual void close() = 0;              ///< both ends
    virtual void sendWhole() = 0;          ///< the next reply without a fault
    virtual bool mayGoOn() const = 0;      ///< not too much is under way
    virtual void pass(quint32 number) = 0; ///< a command to the link; the host's thread
    virtual QByteArray expected(quint32 number) const = 0; ///< what it gives on the wire
    virtual QByteArray incoming() = 0;                     ///< what has come since the last time

    void waitFor(const char* what, const std::function<bool()>& condition);
    void settle(); ///< stops the commands; waits until nothing is under way
    void pause(std::chrono::milliseconds time);
    [[noreturn]] void fail(const QString& reason) const;

    SoakHost& host;
    SeededRandom random;
    std::vector<Action> actions;
    std::chrono::milliseconds gap = interval;
    int restartEvery = 500; // replies, or about

private:
    void run();
    void serve();
    void step();
    void listen();
    void setCommands(bool on);

    std::thread thread;
    qint64 restartCount = 0;
    bool commandsOn = false;   // the host's thread
    qint64 commandCount = 0;   // the same
    quint32 commandNumber = 0; // the same; what was passed last
    quint32 expectedCommand = 0;
    QByteArray heard; // of commands that have not come whole
    std::atomic<bool> done{false};
    std::atomic<bool> resting{false};
};
