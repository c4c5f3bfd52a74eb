// SPDX-License-Identifier: MIT
#include "soakpeer.h"

#include <stdexcept>

namespace
{

constexpr std::chrono::seconds patience{120}; // nothing is decided by how long things take
constexpr std::chrono::milliseconds look{1};

} // namespace

SoakPeer::SoakPeer(QString itsName, SoakHost& itsHost, quint64 seed)
    : name(std::move(itsName)), host(itsHost), random(seed)
{
}

void SoakPeer::start()
{
    thread = std::thread([this] { run(); });
}

void SoakPeer::run()
{
    try {
        open();
        setCommands(true);
        serve();
        settle();
    } catch (const std::exception& error) {
        host.fail(name + ": " + error.what());
    }
    setCommands(false);
    close();
    done = true;
}

void SoakPeer::serve()
{
    auto due = Clock::now();
    int left = restartEvery;
    while (!host.isOver) {
        if (host.restWanted) {
            settle();
            resting = true;
            waitFor("the end of the rest", [this] { return !host.restWanted; });
            resting = false;
            setCommands(true);
        }
        if (--left == 0) {
            settle();
            restart();
            ++restartCount;
            setCommands(true);
            left = 1 + restartEvery / 2 + random.below(restartEvery);
        }
        step();
        listen();
        due = std::max(due + gap, Clock::now() - gap * 10); // catches up a little
        std::this_thread::sleep_until(due);
    }
}

void SoakPeer::step()
{
    waitFor("the host to take what was sent", [this] { return mayGoOn(); });
    int roll = random.below(1000);
    for (Action& action : actions) {
        roll -= action.weight;
        if (roll < 0) {
            ++action.count;
            action.act();
            return;
        }
    }
    sendWhole();
}

void SoakPeer::waitFor(const char* what, const std::function<bool()>& condition)
{
    const auto end = Clock::now() + patience;
    while (!condition()) {
        if (host.hasFailed()) {
            throw std::runtime_error("ended");
        }
        if (Clock::now() > end) {
            fail(QStringLiteral("waited in vain for %1; oldest reply awaited: %2")
                     .arg(what)
                     .arg(ledger.firstAwaited()));
        }
        listen();
        std::this_thread::sleep_for(look);
    }
}

void SoakPeer::pause(std::chrono::milliseconds time)
{
    std::this_thread::sleep_for(time);
}

void SoakPeer::settle()
{
    setCommands(false);
    waitFor("the replies that were sent", [this] { return ledger.awaited() == 0; });
    waitFor("the commands that were sent",
            [this] { return expectedCommand == commandNumber && heard.isEmpty(); });
}

void SoakPeer::setCommands(bool on)
{
    host.perform([this, on] { commandsOn = on; });
}

void SoakPeer::sendCommand()
{
    if (commandsOn) {
        ++commandCount;
        pass(++commandNumber);
    }
}

void SoakPeer::listen()
{
    heard += incoming();
    while (!heard.isEmpty()) {
        const QByteArray wanted = expected(expectedCommand + 1);
        if (!heard.startsWith(wanted.left(heard.size()))) {
            fail(QStringLiteral("command %1 came as %2")
                     .arg(QString::number(expectedCommand + 1),
                          QString::fromLatin1(heard.left(wanted.size()).toHex())));
        }
        if (heard.size() < wanted.size()) {
            return;
        }
        heard.remove(0, wanted.size());
        ++expectedCommand;
    }
}

void SoakPeer::fail(const QString& reason) const
{
    throw std::runtime_error(reason.toStdString());
}
