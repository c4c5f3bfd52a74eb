// SPDX-License-Identifier: MIT
#pragma once

#include "streamlink.h"

#include <QByteArray>

#include <atomic>
#include <memory>
#include <mutex>

class HidHandle;

/// The device over USB HID: commands go out as text frames cut into output reports, replies come
/// back as a stream of text replies with their blocks. See commandframe and replykinds for both.
///
/// Output report, 65 bytes:
///
/// | offset | size | content                                    |
/// |--------|------|--------------------------------------------|
/// | 0      | 1    | 0, the report number                       |
/// | 1      | 64   | bytes of the frame, the rest filled with 0 |
///
/// Input reports go to the receive buffer as they come, padding and all. One report of at most 1024
/// bytes is read every 100 ms or more, whatever waits in the kernel.
///
/// | state  | device | workers | entered by                | left by                |
/// |--------|--------|---------|---------------------------|------------------------|
/// | closed | none   | none    | construction, failed open | openUSB                |
/// | open   | open   | running | openUSB                   | closeUSB, another open |
///
/// A device that is unplugged stays open until it is closed: reads find nothing, writes fail.
///
/// Every operation may be called from any thread. openUSB and closeUSB exclude each other. A send
/// runs beside anything, also beside the close, and blocks until the kernel has taken its last
/// report: up to 5 s a report. Reports of frames that several threads send at a time may come in
/// any order; each report is whole.
class CORE_MANAGE_EXPORT Core_USB : public StreamLink
{
    Q_OBJECT

public:
    Core_USB();
    ~Core_USB() override; ///< closes the device, with closeUSB's pause

    /// Closes what is open as closeUSB does, with its pause, opens the first device with these ids
    /// and starts the workers. False, with nothing open, if it cannot be opened or the system
    /// refuses a thread. Devices 04b4:1008, 04b4:100a and 04b4:100c make the object take the update
    /// path for the rest of its life.
    bool openUSB(unsigned short vendorId, unsigned short productId) override;

    /// Closes the device after the read in the kernel (up to 100 ms) and the write there (up to a
    /// second), stops the workers, empties the receive buffer and pauses 100 ms. A report that the
    /// kernel takes longer to write keeps the device open until its sender has it back. A worker
    /// that waits for a block or for the host is left behind, and touches nothing of this object
    /// any more. While nothing is open it pauses, and changes nothing.
    void closeUSB() override;

    /// Writes one frame, 64 bytes to a report, and logs each report with all that was left of the
    /// frame before it. The first failure ends it. Does nothing while closed.
    void sendUSBData(QByteArray data);

    /// Writes one frame as the update commands want it: of a frame of 64 bytes or more the first 19
    /// travel in a report of their own. Success is not logged.
    void sendUSBData_Update_Norvix(QByteArray data);

    /// The reader's loop on the calling thread, until the device is closed: a pause of 100 ms and a
    /// read of up to 100 ms.
    void td_readPendingDatagrams();

    QByteArray produceCmds(model_Protocoldata record) override;

    /// '<', 'T', two lower-case hexadecimal digits for each byte, '>'. Does not block.
    QByteArray changeData(QByteArray bytes);

public Q_SLOTS:
    void sendDatatoDevice(void* parameters) override { sendRecord(parameters, "Send usb data:"); }
    void sendDatatoDeviceByFeatures(void* parameters) override; ///< featureCode 0x400000 only
    void sendDatatoDeviceForSysPlan(void* parameters) override { Q_UNUSED(parameters) } ///< nothing

private:
    bool writeFrame(const QByteArray& frame) override;
    bool openDevice(unsigned short vendorId, unsigned short productId);
    bool closeDevice(); ///< whether one was open

    std::mutex lifecycleLock;              // openUSB, closeUSB
    std::shared_ptr<HidHandle> hidDev;     // null while closed; by std::atomic_load and its like
    std::atomic<bool> takesUpdates{false}; // a device that takes them has been open
};
