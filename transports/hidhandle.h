// SPDX-License-Identifier: MIT
#pragma once

#include "runtoken.h"

#include <QByteArray>

#include <atomic>
#include <memory>
#include <mutex>

class LinkTap;
class ReceiveBuffer;
struct hid_device_;

/// One open HID device with its reader's loop, and the only place that calls hidapi.
///
/// hidapi keeps an error text in each handle, which reads and writes free without a lock. So the
/// device is opened twice: one handle only reads, the other only writes, each under a lock of its
/// own, and a read and a write have nothing in common. What the kernel keeps for the handle that
/// writes, up to 63 input reports, nobody reads.
///
/// Any thread may call any operation. A caller shares ownership of the object during the call.
class HidHandle
{
public:
    static constexpr int reportLength = 65; ///< report number 0 and the data

    /// Opens the first device with these ids; null, with nothing left open, if there is none or it
    /// refuses. Opens exclude each other. Looks through all HID devices of the system.
    static std::shared_ptr<HidHandle> open(unsigned short vendorId, unsigned short productId);

    /// The reader's loop, until close: a pause of 100 ms and a read. While the buffer is full
    /// nothing is read: what comes is the kernel's to keep or to drop. \a tap is told of the
    /// reports and, once, of a device that is gone.
    void readAll(ReceiveBuffer& buffer, const LinkTap& tap);

    /// Waits up to 100 ms for one input report, of 1024 bytes at most, appends it to \a buffer as
    /// it came, and tells \a tap. A failure is as no report. False if it is closed.
    bool readInto(ReceiveBuffer& buffer, const LinkTap& tap);

    /// Writes one output report, filled with zeros behind \a data (64 bytes at most), and waits
    /// until the kernel has taken it. False if that fails or it is closed.
    bool write(const QByteArray& data);

    /// Closes the device: waits for a read in the kernel, up to 100 ms, and for a write there, up
    /// to a second. If that takes longer, both handles are left to the writer and are closed with
    /// the last owner: the kernel lets nobody close a handle of a device while it writes. Nothing
    /// is appended after it has returned.
    void close();

    RunToken token{true}; ///< of the reader; its flag is set while the device is open

private:
    using Handle = std::unique_ptr<hid_device_, void (*)(hid_device_*)>;

    HidHandle(Handle forReads, Handle forWrites);

    // Lock order: devLock, writeLock.
    std::mutex devLock;
    std::mutex writeLock;
    std::atomic<bool> isLost{false}; // a read has failed
    Handle reader;                   // under devLock
    Handle writer;                   // under writeLock
};
