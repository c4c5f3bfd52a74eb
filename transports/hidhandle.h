// SPDX-License-Identifier: MIT
#pragma once

#include <atomic>
#include <memory>
#include <mutex>

class ReceiveBuffer;
struct hid_device_;

/// One open HID device, and the only place that calls hidapi.
///
/// hidapi keeps one error text per handle: a read frees it at its start, and reads and writes free
/// it at their ends, without any lock. Two calls at a time free it twice once there is one, that
/// is, once a call has failed. What holds them apart:
///
/// | the last call | text | a read holds        | a write holds       | so                      |
/// |---------------|------|---------------------|---------------------|-------------------------|
/// | succeeded     | none | devLock             | writeLock           | writes exclude writes,  |
/// |               |      |                     |                     | never wait for a read   |
/// | failed        | one  | devLock, writeLock  | devLock, writeLock  | all exclude each other  |
///
/// A failure is noted before its call lets go of its lock, so the calls that meet a fresh text are
/// the one that made it and at most one that was in the kernel meanwhile: each frees what it finds
/// once. A call that succeeds while it excludes all others has left no text behind, and the handle
/// is back in the first state.
///
/// Any thread may call any operation. The handle is closed once, after the read and the write that
/// are in the kernel.
class HidHandle
{
public:
    static constexpr int reportLength = 65;   ///< report number 0 and the data
    static constexpr int readLength = 1024;   ///< most that one input report may hold
    static constexpr int readTimeoutMs = 100; ///< how long a read waits for a report

    /// Opens the first device with these ids; null if there is none or it refuses. Opens exclude
    /// each other. Looks through all HID devices of the system.
    static std::shared_ptr<HidHandle> open(unsigned short vendorId, unsigned short productId);

    ~HidHandle(); ///< closes it
    HidHandle(const HidHandle&) = delete;
    HidHandle& operator=(const HidHandle&) = delete;

    /// Waits up to 100 ms for one input report and appends it to \a buffer as it came; nothing is
    /// appended after close has returned. A failure is as no report. False if the handle is closed.
    bool readInto(ReceiveBuffer& buffer);

    /// Writes one output report of reportLength bytes and waits until the kernel has taken it.
    /// False if that fails or the handle is closed.
    bool write(const unsigned char* report);

    /// Closes the device: waits for a read in the kernel, up to 100 ms, and for a write there.
    void close();

private:
    explicit HidHandle(hid_device_* opened);
    bool writeLocked(const unsigned char* report);

    // Lock order: devLock, writeLock.
    std::mutex devLock;
    std::mutex writeLock;
    hid_device_* hidDev;              // written under both locks, null when closed
    std::atomic<bool> closing{false}; // lets close get at the locks under load
    std::atomic<bool> hasFailed{false};
};
