// SPDX-License-Identifier: MIT
#pragma once

#include "kernelhid.h"

/// A HID device without a bus, made through /dev/uhid.
class UhidDevice : public KernelHid
{
public:
    UhidDevice(quint16 vendorId, quint16 productId);
    ~UhidDevice() override;

    bool send(const QByteArray& report) override;
    void unplug() override;

private:
    bool readOne(QByteArray& report) override;

    int descriptorOfUhid;
};
