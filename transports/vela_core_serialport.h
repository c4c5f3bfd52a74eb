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
    ~Vela_Core_SerialPort() override;

    QByteArray produceCmds(model_Protocoldata record) override;

public Q_SLOTS:
    void readPendingDatagrams(); ///< as Core_SerialPort's, with a debug line for each chunk
    void sendDatatoDevice(void* parameters) override;
    void sendDatatoDeviceByFeatures(void* parameters) override; ///< sends every record
    void sendDatatoDeviceForSysPlan(void* parameters) override; ///< does nothing

    /// Closes the port when the device is gone: on a resource error, and on a read error of a line
    /// that has hung up. For the host to connect to the port's errors.
    void handleError(QSerialPort::SerialPortError error);

protected:
    void showChunk(const QByteArray& chunk) override;
};
