// SPDX-License-Identifier: MIT
#pragma once

#include "commandfield.h"

#include <QJsonObject>
#include <QString>
#include <QStringList>

#include <functional>
#include <memory>
#include <vector>

class ICoreBase;

/// One thing that came back from a device, ready to be shown.
struct Reply {
    QString from;     ///< who sent it
    QString line;     ///< for a person, without line feeds
    QByteArray block; ///< the block that came with it, if any
    QJsonObject json; ///< for a program
};

/// An open link to a device, whatever the medium and the kind of record.
///
/// Belongs to one thread, whose event loop must run for replies to come. Nothing blocks.
class DeviceLink
{
public:
    virtual ~DeviceLink() = default;

    /// Sends one command. What the link can tell of a failure is in linknotes afterwards.
    virtual void send(const Command& command) = 0;

    /// What has come since the last call, oldest first.
    virtual std::vector<Reply> takeReplies() = 0;

    /// Whether a reply is from the device that this link talks to.
    virtual bool isFromDevice(const Reply& reply) const = 0;

    /// The devices that are each to reply, as they are called in replies; empty if there is one,
    /// or if nobody knows.
    virtual QStringList devices() const { return {}; }

    /// Why one of them gets no commands; empty if it does.
    virtual QString trouble(const QString& /*device*/) const { return {}; }

    /// Whether a command still waits to go out. Goes on while replies are taken, and not for ever.
    virtual bool isSending() const { return false; }

    /// Whether a device has been reached at all.
    virtual bool wasOpen() const { return true; }

    /// What the person should know of the replies that were taken; each once.
    virtual QString warning() { return {}; }

    /// Why the link does not work any more; empty if it does.
    virtual QString problem() const { return {}; }
};

/// A link over one of the library's transports: records go to the transport, replies come from the
/// front of the reference host's queue. Since the queue is the host's, only one link may take its
/// replies there; of several links, observers tell whose each reply is.
class CoreLink : public DeviceLink
{
public:
    /// Takes an open transport and empties the queue. \a device is the sender that replies
    /// of this device carry; empty if every sender is. \a whyLost tells why the link does not work
    /// any more; empty if it does. \a sendRaw writes bytes as they are to the transport.
    CoreLink(std::shared_ptr<ICoreBase> transport, FieldSet fields, QString device,
             std::function<QString()> whyLost, std::function<void(const QByteArray&)> sendRaw);
    ~CoreLink() override;

    /// Has the tool's observers watch a transport: once for each, however many links share it.
    static void watch(ICoreBase& transport);

    void send(const Command& command) override;
    std::vector<Reply> takeReplies() override;
    bool isFromDevice(const Reply& reply) const override;
    QString problem() const override { return lossReason(); }

private:
    std::shared_ptr<ICoreBase> core;
    FieldSet fieldSet;
    QString deviceName;
    std::function<QString()> lossReason;
    std::function<void(const QByteArray&)> writeRaw;
};
