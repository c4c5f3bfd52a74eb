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

    QByteArray produceCmds(model_Protocoldata record) override;

    /// '<', 'T', two lower-case hexadecimal digits for each byte, '>'. Any thread; does not block.
    QByteArray changeData(QByteArray bytes);

public Q_SLOTS:
    void readPendingDatagrams() { receive(); } ///< see SerialLine::receive
    void sendDatatoDevice(void* parameters) override { sendRecord(parameters, shownText); }
    void sendDatatoDeviceByFeatures(void* parameters) override { sendDatatoDevice(parameters); }
    void sendDatatoDeviceForSysPlan(void* parameters) override { Q_UNUSED(parameters) } ///< nothing

    /// Closes the port when the device is gone, see SerialLine::closeLost. For the host to connect
    /// to the port's errors.
    void handleError(QSerialPort::SerialPortError error) { closeLost(error); }
};
