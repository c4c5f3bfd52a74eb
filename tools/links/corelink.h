// SPDX-License-Identifier: MIT
#pragma once

#include "devicelink.h"

#include <memory>

class ICoreBase;

/// A link over one of the library's transports: records go to the transport, replies come from the
/// front of the reference host's queue. Only one may exist at a time, since the queue is the
/// host's.
class CoreLink : public DeviceLink
{
public:
    /// Takes over an open transport and empties the queue. \a device is the sender that replies
    /// of this device carry; empty if every sender is.
    CoreLink(std::unique_ptr<ICoreBase> transport, FieldSet fields, QString device = {});
    ~CoreLink() override;

    void send(const Command& command) override;
    std::vector<Reply> takeReplies() override;
    bool isFromDevice(const Reply& reply) const override;

private:
    std::unique_ptr<ICoreBase> core;
    FieldSet fieldSet;
    QString deviceName;
};
