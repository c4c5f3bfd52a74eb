// SPDX-License-Identifier: MIT
#pragma once

#include "linkregistry.h"

#include <QByteArray>
#include <QString>

#include <bitset>
#include <chrono>
#include <memory>
#include <vector>

/// Which commands of a link are let through. None, until some are allowed.
class AllowList
{
public:
    void allowAll() { all = true; }
    void allow(quint8 cmd) { any.set(cmd); }
    void allow(quint8 cmd, quint8 dat1) { some.set(std::size_t{cmd} * 256 + dat1); }

    bool allowsAll() const { return all; }
    bool allows(quint8 cmd, quint8 dat1) const
    {
        return all || any[cmd] || some[std::size_t{cmd} * 256 + dat1];
    }

private:
    bool all = false;
    std::bitset<256> any; // whatever DAT1
    std::bitset<65536> some;
};

/// What the bridge connects: a file in JSON, which bridge.schema.json describes.
struct BridgeConfig {
    struct Broker {
        QString host;
        int port = 1883;
        QString clientId; ///< also the name of the bridge's own topics
        std::chrono::seconds keepAlive{30};
        std::chrono::seconds session{3600}; ///< 0: the broker keeps nothing
        QString user;                       ///< empty: none
        QByteArray password;
        bool tls = false;
        QString ca;          ///< paths of PEM files
        QString certificate; ///< empty: none
        QString key;
    };

    struct Link {
        QString name;
        QString address; ///< as written
        std::shared_ptr<const LinkTarget> target;
        AllowList allowed;
        int blockLimit = 0;   ///< bytes
        int rate = 100;       ///< commands a second
        int queueLimit = 100; ///< commands that wait
    };

    Broker broker;
    QString prefix = "coremanage";
    bool sendStale = false;
    std::chrono::seconds duplicates{60};
    qint64 queueLimit = 16 << 20;      ///< bytes that wait for the broker
    std::chrono::seconds counters{10}; ///< between two of them
    std::vector<Link> links;

    /// PREFIX/NAME/LEAF
    QString topic(const QString& name, const char* leaf) const;

    /// Reads a file and everything it names. Sets the host-wide device type, which link addresses
    /// depend on. Throws BadInput, which names the file and the place in it.
    static BridgeConfig read(const QString& path);

    /// The schema as a file.
    static QByteArray schema();
};
