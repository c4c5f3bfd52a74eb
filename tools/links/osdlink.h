// SPDX-License-Identifier: MIT
#pragma once

#include "devicelink.h"
#include "sockets.h"

#include <QElapsedTimer>

#include <deque>
#include <functional>
#include <vector>

class ICoreOsdBase;

/// A link to on-screen-display endpoints, all driven by one manager. Only one may exist at a time,
/// since the manager that records come from and the queue that acknowledgements go to are shared.
///
/// The library drops a record for an endpoint that is not connected, and reports no connections. So
/// this link looks at the process's connections: a record goes to each endpoint as soon as it is
/// connected, whatever the others do. The endpoint's thread may notice its connection later than
/// the system does, and drops a record that comes first: until the first bytes have been written to
/// a connection, its first record is offered again every second.
///
/// Belongs to one thread. Nothing but reopen and the destructor blocks.
class OsdLink : public DeviceLink
{
public:
    struct Endpoint {
        QString ip; ///< dotted; what the endpoint is called in replies
        quint16 port;
    };

    /// Tells which connections are established.
    using Connections = std::function<std::vector<sockets::Connection>()>;

    /// Begins to connect to every endpoint and empties the queue. Each address comes once.
    explicit OsdLink(const std::vector<Endpoint>& endpoints,
                     Connections connections = sockets::established);

    /// Closes every endpoint: 100 ms each, more for one that does not take what is pending.
    ~OsdLink() override;
    OsdLink(const OsdLink&) = delete;
    OsdLink& operator=(const OsdLink&) = delete;

    /// Closes an endpoint and begins to connect to it anew.
    void reopen(const QString& ip);

    void send(const Command& command) override;

    /// Also looks at the connections, every 5 ms, and sends what waits for one.
    std::vector<Reply> takeReplies() override;

    bool isFromDevice(const Reply& reply) const override;
    QStringList devices() const override;
    QString trouble(const QString& device) const override;
    bool isSending() const override;
    bool wasOpen() const override { return reached; }
    QString warning() override;
    QString problem() const override; ///< every endpoint has trouble

private:
    enum class State { Connecting, Connected, Absent, Lost };
    struct Client {
        Endpoint endpoint;
        State state = State::Connecting;
        QElapsedTimer since;   // when it began to connect, or was seen to be gone
        QElapsedTimer offered; // when the first record was sent
        std::deque<model_OsdParam> waiting;
    };

    void begin(Client& client);
    void look();
    void follow(Client& client, const sockets::Connection* connection);
    void noteConnected(Client& client);
    void sendWaiting(Client& client, bool hasSent);
    void giveUp(Client& client, State state);
    const Client* clientAt(const QString& ip) const;
    static QString trouble(const Client& client);

    ICoreOsdBase* manager;
    Connections established;
    std::vector<Client> clients;
    QElapsedTimer lastLook;
    QStringList warnings;
    bool reached = false;
};
