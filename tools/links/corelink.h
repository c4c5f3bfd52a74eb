// SPDX-License-Identifier: MIT
#pragma once

#include "devicelink.h"

#include <functional>
#include <memory>

class ICoreBase;

/// A link over one of the library's transports: records go to the transport, replies come from the
/// front of the reference host's queue. Only one may exist at a time, since the queue is the
/// host's.
class CoreLink : public DeviceLink
{
public:
    /// Takes over an open transport and empties the queue. \a device is the sender that replies
    /// of this device carry; empty if every sender is. \a whyLost tells why the link does not work
    /// any more; empty if it does.
    CoreLink(std::unique_ptr<ICoreBase> transport, FieldSet fields, QString device,
             std::function<QString()> whyLost);
    ~CoreLink() override;

    void send(const Command& command) override;
    std::vector<Reply> takeReplies() override;
    bool isFromDevice(const Reply& reply) const override;
    QString problem() const override { return lossReason(); }

private:
    std::unique_ptr<ICoreBase> core;
    FieldSet fieldSet;
    QString deviceName;
    std::function<QString()> lossReason;
};
