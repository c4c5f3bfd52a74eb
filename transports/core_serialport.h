// SPDX-License-Identifier: MIT
#pragma once

#include "serialline.h"

/// The device over a serial line: commands go out as text frames, replies come back as a stream of
/// text replies with their blocks. See commandframe and replykinds for both.
class CORE_MANAGE_EXPORT Core_SerialPort : public SerialLine
{
    Q_OBJECT

public:
    Core_SerialPort();
    ~Core_SerialPort() override;

    QByteArray produceCmds(model_Protocoldata record) override;

    /// '<', 'T', two lower-case hexadecimal digits for each byte, '>'.
    QByteArray changeData(QByteArray bytes);

public Q_SLOTS:
    void readPendingDatagrams(); ///< moves what the port has received to the receive buffer
    void sendDatatoDevice(void* parameters) override;
    void sendDatatoDeviceByFeatures(void* parameters) override; ///< sends every record
    void sendDatatoDeviceForSysPlan(void* parameters) override; ///< does nothing

    /// Closes the port when the device is gone: on a resource error, and on a read error of a line
    /// that has hung up. For the host to connect to the port's errors.
    void handleError(QSerialPort::SerialPortError error);
};
