// SPDX-License-Identifier: MIT
#pragma once

#include "peers.h"
#include "stormhost.h"

#include "corefactory.h"
#include "linkcounters.h"

#include <memory>
#include <optional>
#include <shared_mutex>
#include <vector>

/// One link of the library with the device at its other end, and all that may happen to it. Unless
/// stated otherwise, the operations are for the thread of the link.
class StormLink
{
public:
    StormLink(int number, std::unique_ptr<Peer> device) : link(number), peer(std::move(device)) {}
    virtual ~StormLink() = default;
    StormLink(const StormLink&) = delete;
    StormLink& operator=(const StormLink&) = delete;

    virtual void make(bool byFactory) = 0; ///< in place of the one that is there, if any
    virtual void destroy() = 0;
    virtual bool open() = 0; ///< false if that cannot be; a display always can
    virtual void close() = 0;
    virtual void reinitialise(Random& random) = 0;
    virtual void set(Random& random) = 0; ///< a device type, an observer, an empty queue
    virtual void send(Random& random) = 0;
    virtual bool sendsFromAnyThread() const { return false; }
    virtual QByteArray reply(int tag) const = 0;
    virtual void forgetDevices() {} ///< while nothing is open

    void peerDoes(Random& random); ///< something bad
    void peerIsGood(int tag);      ///< it answers with this

    QString name;   ///< as the user gives it
    const int link; ///< its number, see StormHost
    const std::unique_ptr<Peer> peer;

protected:
    const std::shared_ptr<LinkCounters> observer = std::make_shared<LinkCounters>();
};

std::unique_ptr<StormLink> makeStormLink(const QString& name); ///< null if there is none
QStringList stormLinkNames();                                  ///< of this program
