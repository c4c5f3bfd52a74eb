// SPDX-License-Identifier: MIT
#pragma once

#include "icoreosdbase.h"
#include "model_osdparam.h"

/// A host's own manager of endpoints, which declares the signal itself.
class HostManager : public ICoreOsdBase
{
    Q_OBJECT

public:
    void openClient(QString /*ip*/, int /*port*/) override {}
    void closeClient(QString /*ip*/) override {}

Q_SIGNALS:
    void sigSendDatatoDevice(model_OsdParam parameters);

public Q_SLOTS:
    void sendDatatoDevice(void* parameters) override
    {
        Q_EMIT sigSendDatatoDevice(*static_cast<const model_OsdParam*>(parameters));
    }
};
