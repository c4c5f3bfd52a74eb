// SPDX-License-Identifier: MIT
#pragma once

#include "serialline.h"

/// The second device line: commands and replies are binary frames. See commandframe for the frame;
/// a reply begins with 0xF1 0x1F.
///
/// Every reply reaches the queue, also one whose block is late or corrupt: that one as decoded,
/// without block, port name and marks. A block is handed on without its checksum byte.
class CORE_MANAGE_EXPORT Vela_Core_SerialPort : public SerialLine
{
    Q_OBJECT

public:
    Vela_Core_SerialPort();

    QByteArray produceCmds(model_Protocoldata record) override;

public Q_SLOTS:
    void readPendingDatagrams() { receive(); } ///< see SerialLine::receive; shows each chunk
    void sendDatatoDevice(void* parameters) override { sendRecord(parameters, shownText); }
    void sendDatatoDeviceByFeatures(void* parameters) override { sendDatatoDevice(parameters); }
    void sendDatatoDeviceForSysPlan(void* parameters) override { Q_UNUSED(parameters) } ///< nothing

    /// Closes the port when the device is gone, see SerialLine::closeLost. For the host to connect
    /// to the port's errors.
    void handleError(QSerialPort::SerialPortError error) { closeLost(error); }

private:
    void showChunk(const QByteArray& chunk) override;
};
