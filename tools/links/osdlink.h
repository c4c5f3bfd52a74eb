// SPDX-License-Identifier: MIT
#pragma once

#include "devicelink.h"
#include "tcpconnections.h"

#include <QElapsedTimer>

#include <deque>
#include <functional>
#include <optional>
#include <vector>

class ICoreOsdBase;

/// A link to on-screen-display endpoints, all driven by one manager. Only one may exist at a time,
/// since the manager that records come from and the queue that acknowledgements go to are shared.
///
/// The library drops a record for an endpoint that is not connected, and tells nobody of
/// connections. So this link looks at the process's connections: a record goes to each endpoint as
/// soon as it is connected, whatever the others do, and counts as sent when the endpoint's thread
/// is done with it and bytes have been written to the connection. A thread that has not noticed its
/// connection yet gets the record again.
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
    using Connections = std::function<std::vector<tcpconnections::Connection>()>;

    /// Begins to connect to every endpoint and empties the queue. Each address comes once.
    explicit OsdLink(const std::vector<Endpoint>& endpoints,
                     Connections connections = tcpconnections::established);

    /// Closes every endpoint: 100 ms each, more for one that does not take what is pending.
    ~OsdLink() override;
    OsdLink(const OsdLink&) = delete;
    OsdLink& operator=(const OsdLink&) = delete;

    /// Closes an endpoint and begins to connect to it anew.
    void reopen(const QString& ip);

    /// Whether an endpoint is connected, as far as it has been looked at.
    bool isConnected(const QString& ip) const;

    void send(const Command& command) override;
    QByteArray frameOf(const Command& command) const override;
    QJsonObject jsonOf(const Command& command) const override;

    /// Also looks at the connections and sends what waits for one.
    std::vector<Reply> takeReplies() override;

    bool isFromDevice(const Reply& reply) const override;
    QStringList devices() const override;
    QString trouble(const QString& device) const override;
    bool isSending() const override;
    bool wasOpen() const override;
    QString warning() override;
    QString problem() const override; ///< every endpoint has trouble

private:
    enum class State { Connecting, Connected, Absent, Lost };
    struct Client {
        Endpoint endpoint;
        State state = State::Connecting;
        QElapsedTimer since; // that it connects, or is gone
        bool hasSent = false;
        std::deque<model_OsdParam> waiting;
        std::optional<model_OsdParam> underWay; // the first one: was the connection noticed?
        bool isDone = true;                     // no thread has that one any more
    };

    void begin(Client& client);
    void look();
    void follow(Client& client, bool connected, bool hasSent);
    void sendWaiting(Client& client);
    void emitRecord(model_OsdParam record);
    void giveUp(Client& client, State state);
    const Client* clientAt(const QString& ip) const;

    ICoreOsdBase* manager;
    Connections established;
    std::vector<Client> clients;
    QElapsedTimer lastLook;
    QStringList warnings;
    bool reached = false;
    int serial = 0;
};
