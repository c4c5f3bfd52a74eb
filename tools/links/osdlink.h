// SPDX-License-Identifier: MIT
#pragma once

#include "devicelink.h"

#include <QElapsedTimer>

#include <chrono>
#include <deque>
#include <memory>
#include <optional>
#include <vector>

class ICoreOsdBase;

/// A link to on-screen-display endpoints, all driven by one manager. Only one may exist at a time,
/// since the manager that records come from and the queue that acknowledgements go to are shared.
///
/// The library drops a record for an endpoint that is not connected. So this link watches them: a
/// record goes to each endpoint as soon as it is connected, whatever the others do.
///
/// Belongs to one thread. Nothing but reopen and the destructor blocks.
class OsdLink : public DeviceLink
{
public:
    struct Endpoint {
        QString ip; ///< dotted; what the endpoint is called in replies
        quint16 port;
    };

    /// Begins to connect to every endpoint and empties the queue. Each address comes once.
    explicit OsdLink(const std::vector<Endpoint>& endpoints);

    /// Closes every endpoint: 100 ms each, more for one that does not take what is pending.
    ~OsdLink() override;
    OsdLink(const OsdLink&) = delete;
    OsdLink& operator=(const OsdLink&) = delete;

    /// Closes an endpoint and begins to connect to it anew.
    void reopen(const QString& ip);

    void send(const Command& command) override;

    /// Also looks at what has happened to the connections, and sends what waits for one.
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
        std::optional<std::chrono::nanoseconds> waited; // since it began to connect, or was lost
        std::deque<model_OsdParam> waiting;
    };

    class Connections; // what the endpoints' threads tell

    void begin(Client& client);
    void look();
    void lookAtTime(Client& client);
    void sendWaiting(Client& client);
    void giveUp(Client& client, State state);
    const Client* clientAt(const QString& ip) const;
    Client* clientAt(const QString& ip);
    static QString trouble(const Client& client);

    ICoreOsdBase* manager;
    std::shared_ptr<Connections> connections;
    std::vector<Client> clients;
    QElapsedTimer sinceLook;
    QStringList warnings;
    bool reached = false;
};
