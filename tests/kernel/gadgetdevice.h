// SPDX-License-Identifier: MIT
#pragma once

#include "kernelhid.h"

#include <QString>

/// A HID device on a USB bus: a gadget that the kernel's dummy host controller is connected to, so
/// that reports pass through the whole stack of both sides. One at a time.
class GadgetDevice : public KernelHid
{
public:
    GadgetDevice(quint16 vendorId, quint16 productId);
    ~GadgetDevice() override;

    bool send(const QByteArray& report) override;
    void unplug() override;

    /// Takes output reports off the bus or leaves them there: the kernel then waits 5 s for each.
    void takeReports(bool on);

private:
    bool readOne(QByteArray& report) override;

    int node = -1; // /dev/hidgN
};
