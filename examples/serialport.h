// SPDX-License-Identifier: MIT
#pragma once

#include <QSerialPort>

#include <cstdio>

/// Opens a serial link's port, 115200 baud, 8N1, and lets the link close it when the device is
/// gone: the library acts on no error of the port by itself, and unconnected, a device that is gone
/// makes the port report errors without end. Says why it fails. Owner's thread.
template <class Line>
bool openPort(Line& line, const QString& name)
{
    QObject::connect(&line.port(), &QSerialPort::errorOccurred, &line, &Line::handleError,
                     Qt::UniqueConnection);
    if (line.openSerialPort(name, QSerialPort::Baud115200, QSerialPort::OneStop,
                            QSerialPort::NoParity, QSerialPort::NoFlowControl,
                            QSerialPort::Data8)) {
        return true;
    }
    std::fprintf(stderr, "%s: %s\n", qPrintable(name), qPrintable(line.port().errorString()));
    return false;
}
