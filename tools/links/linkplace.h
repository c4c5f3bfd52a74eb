// SPDX-License-Identifier: MIT
#pragma once

#include <QHostAddress>
#include <QString>

/// Where this machine meets a device of a link: on a network, or behind a device file.
struct LinkPlace {
    QString device;        ///< as the device is called in replies; empty: the link's only one
    QHostAddress host;     ///< null: there is a device file
    quint16 port = 0;      ///< of the host
    quint16 localPort = 0; ///< that UDP replies come to; 0: TCP
    QString node;          ///< of a serial line, whether it is there or not
    int baud = 0;          ///< of a serial line
    quint16 vendorId = 0;  ///< of a USB device, whose nodes are HidNode's
    quint16 productId = 0;

    bool isNetwork() const { return !host.isNull(); }
};
