// SPDX-License-Identifier: MIT
#pragma once

#include <QString>

#include <vector>

/// A HID device of this system as its hidraw node shows it.
struct HidNode {
    QString path; ///< /dev/hidraw0
    quint16 bus = 0;
    quint16 vendorId = 0;
    quint16 productId = 0;
    QString name; ///< as the device reports it; unprintable characters replaced

    QString address() const; ///< as a link address: usb://04b4:1008

    /// The udev rule that gives the user at the machine access to devices with these ids.
    QString rule() const;

    static std::vector<HidNode> all(); ///< in the order of their numbers
    static std::vector<HidNode> with(quint16 vendorId, quint16 productId);
};
